// A settings-profile file as lidarutil and the window read it: arbitrary bytes. A refusal always
// says why, and a profile that was read survives being written and read again unchanged.

#include <cstdlib>

#include "fuzz_support.h"
#include "settings_profile.h"

// Qt 5.15's JSON parser leaks the array or object a repeated key replaces ({"a":[1],"a":[2]}):
// a leak in the library, reached through QJsonDocument::fromJson, not one of the reader's. Its
// frames carry no symbols and fast unwinding stops inside the library, so the library is named;
// the reader itself owns no memory but through Qt's containers.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libQt5Core.so\n";
}

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
