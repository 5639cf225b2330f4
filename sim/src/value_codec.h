#pragma once

// Turns catalogue texts into the bytes the simulated device holds: command texts into a command
// byte plus sub-command bytes, and default values (written in display form) into the bytes the
// manager decodes back into that same display text.

#include <cstdint>
#include <string>
#include <vector>

#include "sdk/var_info.h"

namespace sim::detail {

// A catalogue command text as it goes on the wire: "0x21" is command 0x21 with no prefix;
// a text longer than 4 characters ("0x00010070") is command 0xFF with the digit pairs as prefix.
struct WireCommand {
    uint8_t command = 0;
    std::vector<uint8_t> prefix;
};

// False for an empty text or one that is not hexadecimal.
bool ParseCommandText(const std::string& text, WireCommand& out);

// The variable's default_val encoded by its var_type into exactly `offset` bytes. An empty or
// unparsable default gives zeros; `parsed` (when given) tells which of the two happened.
std::vector<uint8_t> EncodeDefaultValue(const VarInfo& var, bool* parsed = nullptr);

// A value in display form ("48.37") encoded by the variable's var_type into exactly `offset`
// bytes; false when the text does not fit the type.
bool EncodeDisplayValue(const VarInfo& var, const std::string& text, std::vector<uint8_t>& out);

}  // namespace sim::detail
