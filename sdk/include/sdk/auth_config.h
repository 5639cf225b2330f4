#pragma once

#include <cstdint>
#include <set>
#include <string>

// The access configuration of one profile (./Config/auth_config.csv).
struct AuthConfig {
    std::string profile;
    bool allowAll = true;        // "*", or a profile missing from the file
    std::set<uint8_t> commands;  // the allowed command codes when !allowAll
    std::string token;           // sent with 0xA1 when the device requires authorisation

    bool Allows(uint8_t command) const { return allowAll || commands.count(command) > 0; }
};

class AuthConfigParser {
  public:
    // The profile's configuration; a missing file or profile allows every command, with no token.
    // Malformed command lists are reported through Logger and their bad entries ignored.
    static AuthConfig Load(const std::string& csvPath, const std::string& profile);
};
