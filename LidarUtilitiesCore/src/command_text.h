#pragma once

// How the manager turns the catalogue's command texts into requests. One conversion for reading,
// writing and the model functions, so that a code means the same byte everywhere.

#include <cstdint>
#include <string>

#include "sdk/types.h"
#include "sdk/var_info.h"

// A text of up to four characters ("0x21", "21") is one hexadecimal command code; a longer one
// carries sub-command bytes, appended to `payload`, and goes out as command 0xFF. False when the
// text is neither (the catalogue parser refuses such texts at load time).
bool commandRequestOf(const std::string& text, uint8_t& code, u8Array_t& payload);

// Variables with equal keys are read with one request: the command text, then the payload bytes
// after a blank. The blank keeps "0x75" with payload 00 apart from the sub-command "0x7500".
std::string readRequestKey(const VarInfo& var);
