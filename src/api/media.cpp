#include <velmora/Media.h>

#include "analytics/values.h"
#include "api/guard.h"
#include "media/media_module.h"

namespace Velmora {

using velmora::MediaModule;
using velmora::Runtime;

namespace {

// Arguments are copied into the closure: the work runs later, on the general queue, in the order of
// the calls, where the module and its configuration are made.
template <class Work>
void PostToMedia(Work work) {
    velmora::Post("Media", [work = std::move(work)](Runtime& runtime) mutable { work(runtime.GetMediaModule()); });
}

// Guards the application's settings objects while Open copies one and while an opened ad's cleaned
// parent name is written back into it. Never destroyed: library threads may outlive statics.
velmora::Mutex& SettingsObjects() {
    static auto* mutex = new velmora::Mutex();
    return *mutex;
}

}  // namespace

std::shared_ptr<MediaSettings> Media::SettingsWith(const std::string& name, double length,
                                                   const std::string& playerName, const std::string& playerID) {
    return velmora::Guard(std::shared_ptr<MediaSettings>(), [&] {
        auto settings = std::make_shared<MediaSettings>();
        settings->Name = name;
        settings->Length = length;
        settings->PlayerName = playerName;
        settings->PlayerID = playerID;
        return settings;
    });
}

std::shared_ptr<MediaSettings> Media::AdSettingsWith(const std::string& name, double length,
                                                     const std::string& playerName, const std::string& parentName,
                                                     const std::string& parentPod, double parentPodPosition,
                                                     const std::string& CPM) {
    return velmora::Guard(std::shared_ptr<MediaSettings>(), [&] {
        auto settings = std::make_shared<MediaSettings>();
        settings->IsMediaAd = true;
        settings->Name = name;
        settings->Length = length;
        settings->PlayerName = playerName;
        settings->ParentName = parentName;
        settings->ParentPod = parentPod;
        settings->ParentPodPosition = parentPodPosition;
        settings->CPM = CPM;
        return settings;
    });
}

void Media::Open(std::shared_ptr<MediaSettings> settings) {
    // The item takes its own copy: the application may change or reuse its object at once.
    velmora::Guard([&settings] {
        std::shared_ptr<MediaSettings> copy;
        if (settings) {
            velmora::MutexLock lock(SettingsObjects());
            copy = std::make_shared<MediaSettings>(*settings);
        }
        if (copy) {
            for (std::string* text : {&copy->Name, &copy->PlayerName, &copy->PlayerID, &copy->Channel, &copy->Milestones,
                                      &copy->OffsetMilestones, &copy->ParentName, &copy->ParentPod, &copy->CPM}) {
                *text = velmora::ToValidUtf8(std::move(*text));
            }
        }
        // Only an ad that opens shows its cleaned parent name in the application's object, and whether
        // it opens is known only once the configuration has been read.
        PostToMedia([copy = std::move(copy), settings](MediaModule& media) {
            if (!media.Open(copy) || !copy->IsMediaAd) return;
            velmora::MutexLock lock(SettingsObjects());
            settings->ParentName = copy->ParentName;
        });
    });
}

void Media::Close(const std::string& name) {
    PostToMedia([name = velmora::ToValidUtf8(name)](MediaModule& media) { media.Close(name); });
}

void Media::Play(const std::string& name, double offset) {
    PostToMedia([name = velmora::ToValidUtf8(name), offset](MediaModule& media) { media.Play(name, offset); });
}

void Media::Complete(const std::string& name, double offset) {
    PostToMedia([name = velmora::ToValidUtf8(name), offset](MediaModule& media) { media.Complete(name, offset); });
}

void Media::Stop(const std::string& name, double offset) {
    PostToMedia([name = velmora::ToValidUtf8(name), offset](MediaModule& media) { media.Stop(name, offset); });
}

void Media::Click(const std::string& name, double offset) {
    PostToMedia([name = velmora::ToValidUtf8(name), offset](MediaModule& media) { media.Click(name, offset); });
}

void Media::Track(const std::string& name, const ObjectMap& contextData) {
    velmora::Call([&](Runtime& runtime) {
        auto translated = velmora::TranslateContextData(contextData, runtime.Log());
        PostToMedia([name = velmora::ToValidUtf8(name), translated = std::move(translated)](MediaModule& media) mutable {
            media.Track(name, std::move(translated));
        });
    });
}

}  // namespace Velmora
