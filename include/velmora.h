#ifndef VELMORA_H
#define VELMORA_H

/** @file
 *  The C interface: every operation of the C++ API for C programs and for other languages'
 *  bindings, in the same shared and static library, with an interface that does not change with
 *  the C++ classes.
 *
 *  Every call forwards to the C++ operation of the same name and keeps its rules: any thread may
 *  call it, none blocks on a file or the network (the few that wait for the library's own queues
 *  say so), and none fails loudly: a problem becomes a log line. Strings are UTF-8 (invalid
 *  sequences become U+FFFD); a `NULL` string reads as empty and a `NULL` map as no entries.
 *  Strings the library returns as `char *` belong to the caller, who frees them with
 *  velmora_free(). `user_data` is handed back to the callback untouched.
 *
 *  Completion callbacks (the `done` parameters) are called exactly once, on a library thread,
 *  when the result is known, and must return quickly; the call that takes them returns at once.
 *  After velmora_shutdown() they are called on the calling thread before the call returns, with
 *  the result a stopped library gives. The other callbacks say where they run. */

#include <velmora/Export.h>
#include <velmora/Version.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The user's choice about measurement; see velmora_set_privacy_status(). */
typedef enum {
    VELMORA_PRIVACY_OPT_IN = 1,   /**< Hits are sent. */
    VELMORA_PRIVACY_OPT_OUT = 2,  /**< Tracking calls are dropped and the hit queue is emptied. */
    VELMORA_PRIVACY_UNKNOWN = 3   /**< Hits are queued but not sent until opt-in. */
} velmora_privacy_t;

/** The level of a log line (see velmora_options_set_log_func()). */
typedef enum {
    VELMORA_LOG_DEBUG = 0,    /**< "Velmora Debug:", written while debug logging is on. */
    VELMORA_LOG_WARNING = 1,  /**< "Velmora Warning:", written while debug logging is on. */
    VELMORA_LOG_ERROR = 2     /**< "Velmora Error:", always written. */
} velmora_log_level_t;

/** The host's choices, set before first use: made by velmora_options_new(), given to
 *  velmora_configure(). Opaque. */
typedef struct velmora_options velmora_options_t;
/** Context data: keys and values that travel with a hit, an offer request or an audience signal,
 *  ordered by key (plain byte comparison). Opaque; made by velmora_map_new(). */
typedef struct velmora_map velmora_map_t;
/** The settings of a media item or an ad. Opaque; made by velmora_media_settings_new() or
 *  velmora_media_ad_settings_new(). */
typedef struct velmora_media_settings velmora_media_settings_t;

/** What the hit queue has done since the library started in this process (velmora_stats()). */
typedef struct {
    uint64_t queued;          /**< Hits put in the queue. */
    uint64_t delivered;       /**< Hits answered 200 or 307. */
    uint64_t retried;         /**< Attempts that failed and will be tried again. */
    uint64_t dropped;         /**< Hits removed unsent: stale, offline tracking off, invalid, opt-out. */
    uint64_t waiting;         /**< Hits in the queue now, the file's backlog included once loaded. */
    int32_t last_status;      /**< HTTP status of the last attempt (408 time-out), 0 none. */
    int64_t last_delivered;   /**< seconds since the epoch, 0 none */
} velmora_stats_t;

/** The library's version, VELMORA_VERSION_STRING of the library in use. Answers at once.
 *  @return a static string; do not free it. */
VELMORA_API const char *velmora_version(void);
/** Frees a string the library returned. `NULL` is ignored.
 *  @param pointer the string. */
VELMORA_API void velmora_free(void *pointer);

/** New options, every member at its default (see the C++ HostOptions).
 *  @return the options, for velmora_configure() or velmora_options_free(); `NULL` when out of memory. */
VELMORA_API velmora_options_t *velmora_options_new(void);
/** Frees options that were not given to velmora_configure(). `NULL` is ignored.
 *  @param options the options. */
VELMORA_API void velmora_options_free(velmora_options_t *options);
/** Where "VelmoraConfig.json" and "AppxManifest.xml" are read.
 *  @param options the options.
 *  @param path the directory; empty: `$VELMORA_PACKAGE_DIR`, else the executable's directory. */
VELMORA_API void velmora_options_set_package_directory(velmora_options_t *options, const char *path);
/** Where the library keeps its state (settings database, hit queue, timed actions).
 *  @param options the options.
 *  @param path the directory; empty: `$VELMORA_LOCAL_DIR`, else `$XDG_DATA_HOME/velmora/<executable>`. */
VELMORA_API void velmora_options_set_local_directory(velmora_options_t *options, const char *path);
/** The device's maker and model, in the user agent and in "a.DeviceName".
 *  @param options the options.
 *  @param manufacturer the maker; empty: `/sys/class/dmi/id/sys_vendor`.
 *  @param model the model; empty: `/sys/class/dmi/id/product_name`. */
VELMORA_API void velmora_options_set_device(velmora_options_t *options, const char *manufacturer, const char *model);
/** The user's language, sent as "Accept-Language".
 *  @param options the options.
 *  @param tag a BCP 47 tag ("de-DE"); empty: from `LC_ALL`, `LC_MESSAGES` or `LANG`. */
VELMORA_API void velmora_options_set_language_tag(velmora_options_t *options, const char *tag);
/** The application's name and version; with both set, no "AppxManifest.xml" is needed.
 *  @param options the options.
 *  @param name the application's name.
 *  @param version "Major.Minor.Build.Revision". */
VELMORA_API void velmora_options_set_application(velmora_options_t *options, const char *name, const char *version);
/** The operating system's description, sent as "a.OSVersion" and in the user agent.
 *  @param options the options.
 *  @param os_version the description ("Debian GNU/Linux 12"); empty: the library's fixed text. */
VELMORA_API void velmora_options_set_os_version(velmora_options_t *options, const char *os_version);
/** Adds a curl CONNECT_TO entry; with none, the entries of `$VELMORA_CONNECT_TO` apply.
 *  @param options the options.
 *  @param entry "HOST:PORT:ADDR:PORT", e.g. "collect.example.com:80:127.0.0.1:8765". */
VELMORA_API void velmora_options_add_connect_to(velmora_options_t *options, const char *entry);
/** The size of the application's window, sent as "a.Resolution". `func` is called at most once per
 *  process, on the calling thread of the first velmora_collect_lifecycle_data(), state, action,
 *  location, lifetime value or timed action end call (on a library thread when a media hit comes
 *  first). Without it: "Unknown".
 *  @param options the options.
 *  @param func sets `*width` and `*height` in pixels and returns nonzero, or returns 0: unknown.
 *  @param user_data passed to `func`. */
VELMORA_API void velmora_options_set_window_size_func(velmora_options_t *options,
    int (*func)(double *width, double *height, void *user_data), void *user_data);  /* 0: unknown */
/** Whether the device can reach the internet. `func` is called on the sender's thread before each
 *  hit it sends, and every 2 s on the library's timer thread while hits wait for a connection; it
 *  must answer quickly and must not call the library. Without it: the kernel's routing table.
 *  @param options the options.
 *  @param func returns nonzero while connected.
 *  @param user_data passed to `func`. */
VELMORA_API void velmora_options_set_internet_func(velmora_options_t *options, int (*func)(void *user_data),
                                                   void *user_data);
/** Receives every log line. `func` is called on whichever thread logs, a library thread or the
 *  application's own, possibly several at once; it must not call the library. Without it:
 *  standard error.
 *  @param options the options.
 *  @param func gets the level and the line: its level prefix ("Velmora Error:") and message,
 *    without a line feed, valid during the call.
 *  @param user_data passed to `func`. */
VELMORA_API void velmora_options_set_log_func(velmora_options_t *options,
    void (*func)(velmora_log_level_t level, const char *line, void *user_data), void *user_data);
/** Sets the host's options. Call it once, before any other call of the library (velmora_version()
 *  and velmora_stats() excepted). Returns at once.
 *  @param options the options, which the library takes and frees; `NULL`: the defaults.
 *  @return 1 when taken; 0 once the library has started (with a warning line). */
VELMORA_API int velmora_configure(velmora_options_t *options);  /* takes ownership; 1 taken, 0 ignored */
/** Waits until the calls made before have been handled and the sender is idle (C++ Host::Flush()).
 *  Blocks for at most `timeout_ms`; do not call it from a library callback.
 *  @param timeout_ms the longest wait in milliseconds.
 *  @return 1 when no hit is left queued, else 0. */
VELMORA_API int velmora_flush(int32_t timeout_ms);
/** Delivers what it can within the time-out, saves the queue and stops the library's threads (C++
 *  Host::Shutdown()); later calls are ignored. Blocks for at most `timeout_ms` plus 40 ms.
 *  @param timeout_ms the longest time in milliseconds.
 *  @return 1 when no hit is left queued, else 0. */
VELMORA_API int velmora_shutdown(int32_t timeout_ms);
/** The delivery counters of this process. Answers at once from memory on the calling thread, never
 *  starts the library, and still answers after velmora_shutdown().
 *  @return the counters; all zero before the hit queue has started. */
VELMORA_API velmora_stats_t velmora_stats(void);

/** A new, empty map.
 *  @return the map, to free with velmora_map_free(); `NULL` when out of memory. */
VELMORA_API velmora_map_t *velmora_map_new(void);
/** Frees a map. `NULL` is ignored.
 *  @param map the map. */
VELMORA_API void velmora_map_free(velmora_map_t *map);
/** Sets a text value, replacing the key's value if any. A `NULL` map is ignored.
 *  @param map the map.
 *  @param key the key; a key that begins with "&&" sets a top-level variable of a hit.
 *  @param value the text. */
VELMORA_API void velmora_map_set_string(velmora_map_t *map, const char *key, const char *value);
/** Sets an integer value, sent in decimal.
 *  @param map the map.
 *  @param key the key.
 *  @param value the number. */
VELMORA_API void velmora_map_set_int(velmora_map_t *map, const char *key, int64_t value);
/** Sets a floating-point value, sent in its shortest round-trip form.
 *  @param map the map.
 *  @param key the key.
 *  @param value the number. */
VELMORA_API void velmora_map_set_double(velmora_map_t *map, const char *key, double value);
/** Sets a boolean value, sent as "true" or "false".
 *  @param map the map.
 *  @param key the key.
 *  @param value nonzero for true. */
VELMORA_API void velmora_map_set_bool(velmora_map_t *map, const char *key, int value);
/** The number of entries.
 *  @param map the map; `NULL` has none.
 *  @return the count. */
VELMORA_API size_t velmora_map_size(const velmora_map_t *map);
/** The key of an entry, in key order.
 *  @param map the map.
 *  @param index from 0 to velmora_map_size() - 1.
 *  @return the key, valid until the map changes or is freed; `NULL` when out of range. */
VELMORA_API const char *velmora_map_key(const velmora_map_t *map, size_t index);    /* valid while the map lives */
/** The value of an entry as text, exactly as it goes on the wire.
 *  @param map the map.
 *  @param index from 0 to velmora_map_size() - 1.
 *  @return the text, valid until the map changes or is freed; `NULL` when out of range. */
VELMORA_API const char *velmora_map_text(const velmora_map_t *map, size_t index);  /* the value as it goes on the wire */

/** Whether debug and warning lines are written. Answers at once.
 *  @return nonzero while debug logging is on. */
VELMORA_API int velmora_get_debug_logging(void);
/** Turns debug and warning lines on or off; error lines are always written. Returns at once.
 *  @param enabled nonzero to write them. */
VELMORA_API void velmora_set_debug_logging(int enabled);
/** Starts or resumes a session: when the application starts or comes to the foreground. Returns at
 *  once. */
VELMORA_API void velmora_collect_lifecycle_data(void);
/** Marks the session as paused: when the application goes to the background, and before it exits
 *  normally. Returns at once. */
VELMORA_API void velmora_pause_collecting_lifecycle_data(void);
/** The lifetime value accumulated by velmora_track_lifetime_value_increase(). Reads the local
 *  settings database on the calling thread (a few milliseconds at most).
 *  @return the total, rounded to two decimals; 0 when none or on failure. */
VELMORA_API double velmora_get_lifetime_value(void);
/** The privacy status in force, once the calls made before have been handled.
 *  @param done called once, on a library thread: gets the status, or 0 when the configuration cannot
 *    be read.
 *  @param user_data passed to `done`. */
VELMORA_API void velmora_get_privacy_status(void (*done)(velmora_privacy_t status, void *user_data), void *user_data);
/** Changes the privacy status and keeps it across runs. Returns at once.
 *  @param status the new status. */
VELMORA_API void velmora_set_privacy_status(velmora_privacy_t status);
/** The application's own identifier of the user. Reads the local settings database on the calling
 *  thread (a few milliseconds at most).
 *  @return the identifier, empty when none; free it with velmora_free(). `NULL` when out of memory. */
VELMORA_API char *velmora_get_user_identifier(void);
/** Sets the application's own identifier of the user, sent as "vid". Returns at once.
 *  @param identifier the identifier; empty stops sending one. */
VELMORA_API void velmora_set_user_identifier(const char *identifier);

/** Records that the user sees a state (a screen or page). Returns at once.
 *  @param state the state's name, sent as "pageName".
 *  @param context_data values sent with the hit; the library copies them. */
VELMORA_API void velmora_track_state(const char *state, const velmora_map_t *context_data);
/** Records something the user or the application did. Returns at once.
 *  @param action the action's name.
 *  @param context_data values sent with the hit. */
VELMORA_API void velmora_track_action(const char *action, const velmora_map_t *context_data);
/** Records the device's position. Returns at once.
 *  @param latitude degrees, -90 to 90.
 *  @param longitude degrees, -180 to 180.
 *  @param horizontal_accuracy metres.
 *  @param context_data values sent with the hit. */
VELMORA_API void velmora_track_location(double latitude, double longitude, double horizontal_accuracy,
                                        const velmora_map_t *context_data);
/** Adds to the lifetime value and sends it. Returns at once.
 *  @param amount the increase, 0 or more.
 *  @param context_data values sent with the hit. */
VELMORA_API void velmora_track_lifetime_value_increase(float amount, const velmora_map_t *context_data);
/** Starts timing an action, kept across restarts. Returns at once.
 *  @param action the name.
 *  @param context_data values kept with it and sent when it ends. */
VELMORA_API void velmora_track_timed_action_start(const char *action, const velmora_map_t *context_data);
/** Adds or replaces values of a running timed action. Returns at once.
 *  @param action the name.
 *  @param context_data the values to merge. */
VELMORA_API void velmora_track_timed_action_update(const char *action, const velmora_map_t *context_data);
/** Ends a timed action and sends it as an action with its durations. Returns at once.
 *  @param action the name. */
VELMORA_API void velmora_track_timed_action_end(const char *action);
/** Whether a timed action is running, once the starts and ends called before have been handled.
 *  @param action the name.
 *  @param done called once, on a library thread: gets nonzero when it runs, 0 when not or when the
 *    library cannot answer.
 *  @param user_data passed to `done`. */
VELMORA_API void velmora_tracking_timed_action_exists(const char *action, void (*done)(int exists, void *user_data),
                                                      void *user_data);
/** The anonymous identifier of this installation, sent in every hit as "aid".
 *  @param done called once, on a library thread: gets the identifier (valid during the call), empty
 *    when the library cannot answer.
 *  @param user_data passed to `done`. */
VELMORA_API void velmora_get_tracking_identifier(void (*done)(const char *identifier, void *user_data),
                                                 void *user_data);
/** Removes every queued hit, from memory and from the queue file. Returns at once. */
VELMORA_API void velmora_clear_queue(void);
/** The number of hits waiting to be sent. Waits until the calls made before it have reached the
 *  queue, which normally takes milliseconds.
 *  @return the count; 0 when the library cannot answer. */
VELMORA_API uint32_t velmora_get_queue_size(void);

/** Settings for a content item.
 *  @param name the item's name, required.
 *  @param length seconds; 0 or less: unknown.
 *  @param player_name the player's name.
 *  @param player_id the player instance.
 *  @return the settings, to free with velmora_media_settings_free(); `NULL` when out of memory. */
VELMORA_API velmora_media_settings_t *velmora_media_settings_new(const char *name, double length,
                                                                 const char *player_name, const char *player_id);
/** Settings for an ad played inside a content item.
 *  @param name the ad's name.
 *  @param length seconds; 0 or less: unknown.
 *  @param player_name the player's name.
 *  @param parent_name the content's name, required.
 *  @param parent_pod the ad break.
 *  @param parent_pod_position the position in the break.
 *  @param cpm cost per thousand views, sent unchanged.
 *  @return the settings, to free with velmora_media_settings_free(); `NULL` when out of memory. */
VELMORA_API velmora_media_settings_t *velmora_media_ad_settings_new(const char *name, double length,
    const char *player_name, const char *parent_name, const char *parent_pod, double parent_pod_position,
    const char *cpm);
/** Frees media settings. `NULL` is ignored.
 *  @param settings the settings. */
VELMORA_API void velmora_media_settings_free(velmora_media_settings_t *settings);
/** The content channel, sent as "a.media.channel".
 *  @param settings the settings.
 *  @param channel the channel. */
VELMORA_API void velmora_media_settings_set_channel(velmora_media_settings_t *settings, const char *channel);
/** Percentage milestones of the length.
 *  @param settings the settings.
 *  @param milestones comma-separated percentages, "25,50,75". */
VELMORA_API void velmora_media_settings_set_milestones(velmora_media_settings_t *settings, const char *milestones);
/** Offset milestones in seconds.
 *  @param settings the settings.
 *  @param offsets comma-separated seconds, "10,30,60". */
VELMORA_API void velmora_media_settings_set_offset_milestones(velmora_media_settings_t *settings, const char *offsets);
/** Reports the stretch between two percentage milestones as a segment.
 *  @param settings the settings.
 *  @param enabled nonzero to report. */
VELMORA_API void velmora_media_settings_set_segment_by_milestones(velmora_media_settings_t *settings, int enabled);
/** Reports the stretch between two offset milestones as a segment.
 *  @param settings the settings.
 *  @param enabled nonzero to report. */
VELMORA_API void velmora_media_settings_set_segment_by_offset_milestones(velmora_media_settings_t *settings,
                                                                         int enabled);
/** Sends a progress hit after every this many seconds played.
 *  @param settings the settings.
 *  @param seconds the interval; 0 or less: never. */
VELMORA_API void velmora_media_settings_set_track_seconds(velmora_media_settings_t *settings, int32_t seconds);
/** Seconds before the end within which closing counts the item as complete.
 *  @param settings the settings.
 *  @param seconds the threshold; below 1 counts as 1. */
VELMORA_API void velmora_media_settings_set_complete_close_offset_threshold(velmora_media_settings_t *settings,
                                                                            int32_t seconds);
/** Opens an item; the library copies the settings. Returns at once.
 *  @param settings the settings; an ad's parent name may be cleaned in place. */
VELMORA_API void velmora_media_open(velmora_media_settings_t *settings);   /* may clean the ad's parent name in place */
/** Closes an item. Returns at once.
 *  @param name the item's name. */
VELMORA_API void velmora_media_close(const char *name);
/** Starts or resumes playing. Returns at once.
 *  @param name the item's name.
 *  @param offset seconds from the start. */
VELMORA_API void velmora_media_play(const char *name, double offset);
/** Marks the item complete. Returns at once.
 *  @param name the item's name.
 *  @param offset seconds from the start. */
VELMORA_API void velmora_media_complete(const char *name, double offset);
/** Stops (pauses) playing. Returns at once.
 *  @param name the item's name.
 *  @param offset seconds from the start. */
VELMORA_API void velmora_media_stop(const char *name, double offset);
/** Records a click on the playing item. Returns at once.
 *  @param name the item's name.
 *  @param offset seconds from the start. */
VELMORA_API void velmora_media_click(const char *name, double offset);
/** Sends a hit with the item's state and extra values. Returns at once.
 *  @param name the item's name.
 *  @param context_data the values. */
VELMORA_API void velmora_media_track(const char *name, const velmora_map_t *context_data);

/** Asks the offer service for a location's content.
 *  @param name the location (mbox) name.
 *  @param default_content what `done` gets when the service gives nothing.
 *  @param parameters parameters sent with the request.
 *  @param done called once, on a library thread: gets the content (valid during the call).
 *  @param user_data passed to `done`. */
VELMORA_API void velmora_vantor_load_request(const char *name, const char *default_content,
    const velmora_map_t *parameters, void (*done)(const char *content, void *user_data), void *user_data);
/** Reports a completed order to the offer service.
 *  @param name the location (mbox) name.
 *  @param order_id the order's identifier.
 *  @param order_total the order's total, as text.
 *  @param product_purchased_id the purchased products' identifiers.
 *  @param parameters further parameters.
 *  @param done called once, on a library thread: gets the content (valid during the call).
 *  @param user_data passed to `done`. */
VELMORA_API void velmora_vantor_load_order_confirm_request(const char *name, const char *order_id,
    const char *order_total, const char *product_purchased_id, const velmora_map_t *parameters,
    void (*done)(const char *content, void *user_data), void *user_data);
/** Forgets the offer service's visitor and session identifiers. Returns at once. */
VELMORA_API void velmora_vantor_clear_cookies(void);
/** The offer service's visitor identifier ("mboxPC"). Answers at once.
 *  @return the identifier, empty when none; free it with velmora_free(). */
VELMORA_API char *velmora_vantor_get_pc_id(void);
/** The offer service's session identifier ("mboxSession"). Answers at once.
 *  @return the identifier, empty when none; free it with velmora_free(). */
VELMORA_API char *velmora_vantor_get_session_id(void);

/** The audience profile of the last successful signal, kept across runs. Reads the local settings
 *  database on the calling thread (a few milliseconds at most).
 *  @return segment names and values as texts; `NULL` when none. */
VELMORA_API velmora_map_t *velmora_cohorta_get_visitor_profile(void);  /* NULL: none; free with velmora_map_free */
/** The data provider's identifier, as set by velmora_cohorta_set_dpid_and_dpuuid(). Answers at once.
 *  @return the identifier, empty until set; free it with velmora_free(). */
VELMORA_API char *velmora_cohorta_get_dpid(void);
/** The user's identifier at the data provider. Answers at once.
 *  @return the identifier, empty until set; free it with velmora_free(). */
VELMORA_API char *velmora_cohorta_get_dpuuid(void);
/** Sets the data provider and the user's identifier there, sent with every later signal of this
 *  process. Returns at once.
 *  @param dpid the data provider's identifier.
 *  @param dpuuid the user's identifier at that provider. */
VELMORA_API void velmora_cohorta_set_dpid_and_dpuuid(const char *dpid, const char *dpuuid);
/** Sends the user's traits to the audience service.
 *  @param traits the traits.
 *  @param done called once, on a library thread: gets the segments of the answer, or `NULL` when there
 *    are none or the request failed; the map is the library's and valid during the call.
 *  @param user_data passed to `done`. */
VELMORA_API void velmora_cohorta_submit_signal(const velmora_map_t *traits,
    void (*done)(const velmora_map_t *profile /* NULL: none; valid during the call */, void *user_data),
    void *user_data);

#ifdef __cplusplus
}
#endif

#endif
