#pragma once

// The client a run of staged edits sends its commands through, and the word its messages use
// for it: the VRC client ("VRC"), or the serial client of the Wren's serial lines ("Serial").

#include <cstdint>
#include <functional>
#include <string>

#include "lidar_utilities_manager.h"

struct SetChannel {
    std::string protocol;
    std::function<int(uint8_t, const u8Array_t&, u8Array_t&)> query;
    std::function<int()> lastCode;
    // The channel field of view (0x22); null where the client has no such operation.
    std::function<int(const float*, int, uint8_t)> setFov;
    // The lidar takes the network settings (0x21) and closes the connection instead of replying.
    bool networkSetClosesConnection = false;
};
