#include "command_text.h"

#include "lidar_utilities_manager.h"
#include "sdk/text_fields.h"

bool commandRequestOf(const std::string& text, uint8_t& code, u8Array_t& payload) {
    if (text.size() <= 4) return lidar::text::ParseCommandCode(text, code);
    u8Array_t subCommand;
    if (!lidar::text::ParseHexPairs(text.size() % 2 ? text.substr(0, text.size() - 1) : text,
                                    subCommand)) {
        return false;
    }
    LidarUtilitiesManager::writeSubCmdIntoInput(text, payload);
    code = 0xFF;
    return true;
}

std::string readRequestKey(const VarInfo& var) {
    std::string key = var.get_cmd;
    if (var.get_payload.empty()) return key;
    key += ' ';
    static const char kDigits[] = "0123456789ABCDEF";
    for (uint8_t byte : var.get_payload) {
        key += kDigits[byte >> 4];
        key += kDigits[byte & 0x0F];
    }
    return key;
}
