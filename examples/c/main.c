/* A C program instrumented with Velmora through its C interface, <velmora.h>. Its collection, offer
 * and audience hosts are routed to one local collector:
 *   velmora-c-example --collector 127.0.0.1:PORT [--local-dir DIR] [--verbose]
 * It prints what it did and the library's delivery counters, and exits 0 when every hit went out. */
#define _POSIX_C_SOURCE 200809L

#include <velmora.h>

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>

/* A result that a library thread hands over to the main thread. */
struct answer {
    pthread_mutex_t lock;
    pthread_cond_t ready;
    int done;
    char text[256];
};

static void answer_init(struct answer *answer) {
    pthread_mutex_init(&answer->lock, NULL);
    pthread_cond_init(&answer->ready, NULL);
    answer->done = 0;
    answer->text[0] = '\0';
}

static void answer_wait(struct answer *answer) {
    pthread_mutex_lock(&answer->lock);
    while (!answer->done) pthread_cond_wait(&answer->ready, &answer->lock);
    pthread_mutex_unlock(&answer->lock);
}

/* Callbacks run on a library thread: copy the text, wake the waiter, return. */
static void on_text(const char *text, void *user_data) {
    struct answer *answer = user_data;
    pthread_mutex_lock(&answer->lock);
    snprintf(answer->text, sizeof answer->text, "%s", text);
    answer->done = 1;
    pthread_cond_signal(&answer->ready);
    pthread_mutex_unlock(&answer->lock);
}

static void on_log(velmora_log_level_t level, const char *line, void *user_data) {
    (void)level;
    (void)user_data;
    fprintf(stderr, "%s\n", line);
}

/* The collector runs on this machine: reachable even where the machine has no route out. */
static int always_online(void *user_data) {
    (void)user_data;
    return 1;
}

static int window_size(double *width, double *height, void *user_data) {
    (void)user_data;
    *width = 1024;
    *height = 768;
    return 1;
}

static void configure(const char *collector, const char *local_dir, int verbose) {
    static const char *const hosts[] = {"collect.velmora.example", "demo.tt.vantor.example", "audience.velmora.example"};
    char entry[512];
    struct utsname system;
    size_t i;
    velmora_options_t *options = velmora_options_new();

    if (local_dir != NULL) velmora_options_set_local_directory(options, local_dir);
    velmora_options_set_application(options, "Velmora C Example", "1.0.0.3");
    if (uname(&system) == 0) {
        snprintf(entry, sizeof entry, "%s %s", system.sysname, system.release);
        velmora_options_set_os_version(options, entry);
    }
    for (i = 0; i < sizeof hosts / sizeof hosts[0]; ++i) {
        snprintf(entry, sizeof entry, "%s:80:%s", hosts[i], collector);
        velmora_options_add_connect_to(options, entry);
    }
    velmora_options_set_internet_func(options, always_online, NULL);
    velmora_options_set_window_size_func(options, window_size, NULL);
    if (verbose) velmora_options_set_log_func(options, on_log, NULL);
    velmora_configure(options); /* the library owns the options now */
    velmora_set_debug_logging(verbose);
}

int main(int argc, char **argv) {
    const char *collector = NULL, *local_dir = NULL;
    int verbose = 0, i, delivered;
    struct answer identifier, offer;
    velmora_map_t *data;
    velmora_stats_t stats;

    for (i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--verbose") == 0) {
            verbose = 1;
        } else if (strcmp(argv[i], "--collector") == 0 && i + 1 < argc) {
            collector = argv[++i];
        } else if (strcmp(argv[i], "--local-dir") == 0 && i + 1 < argc) {
            local_dir = argv[++i];
        } else {
            collector = NULL;
            break;
        }
    }
    if (collector == NULL) {
        fprintf(stderr, "usage: velmora-c-example --collector ADDRESS:PORT [--local-dir DIR] [--verbose]\n");
        return 2;
    }
    configure(collector, local_dir, verbose);
    printf("c-example: Velmora %s\n", velmora_version());

    velmora_collect_lifecycle_data();

    data = velmora_map_new();
    velmora_map_set_string(data, "section", "front page");
    velmora_map_set_string(data, "visitor.type", "returning");
    velmora_map_set_int(data, "items", 3);
    velmora_map_set_double(data, "cart.total", 25.5);
    velmora_map_set_bool(data, "member", 1);
    velmora_track_state("Home", data); /* the library copies the map */
    for (i = 0; (size_t)i < velmora_map_size(data); ++i) {
        printf("c-example: sent %s = %s\n", velmora_map_key(data, (size_t)i), velmora_map_text(data, (size_t)i));
    }
    velmora_map_free(data);

    data = velmora_map_new();
    velmora_map_set_string(data, "product", "Espresso cup");
    velmora_map_set_double(data, "price", 12.5);
    velmora_track_action("AddToCart", data);
    velmora_track_timed_action_start("Checkout", data);
    velmora_track_timed_action_end("Checkout");
    velmora_map_free(data);

    answer_init(&identifier);
    velmora_get_tracking_identifier(on_text, &identifier);
    answer_wait(&identifier);
    printf("c-example: tracking identifier %s\n", identifier.text);

    answer_init(&offer);
    velmora_vantor_load_request("homepage-banner", "default banner", NULL, on_text, &offer);
    answer_wait(&offer);
    printf("c-example: offer content: %s\n", offer.text);

    velmora_pause_collecting_lifecycle_data();
    delivered = velmora_flush(20000);
    stats = velmora_stats();
    printf("c-example: queued %llu delivered %llu waiting %llu last status %d\n", (unsigned long long)stats.queued,
           (unsigned long long)stats.delivered, (unsigned long long)stats.waiting, (int)stats.last_status);
    velmora_shutdown(2000);
    return delivered ? 0 : 1;
}
