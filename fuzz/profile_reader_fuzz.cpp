// A settings-profile file as lidarutil and the window read it: arbitrary bytes. A refusal always
// says why, and a profile that was read survives being written and read again unchanged.

#include <cstdlib>

#include "fuzz_support.h"
#include "settings_profile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray json(reinterpret_cast<const char*>(data), static_cast<int>(size));
    profile::SettingsProfile read;
    QString error;
    if (!profile::readProfile(json, &read, &error)) {
        if (error.isEmpty()) std::abort();
        return 0;
    }
    if (read.fieldOfView && read.fieldOfView->bounds.size() != profile::kFieldOfViewBoundCount)
        std::abort();
    profile::SettingsProfile again;
    if (!profile::readProfile(profile::writeProfile(read), &again, &error)) std::abort();
    if (again != read) std::abort();
    return 0;
}
