#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// One variable of a lidar model's catalogue. ConfigParser creates and owns every record; everyone
// else holds pointers, which stay valid for as long as the parser lives (also across moves).
struct VarInfo {
    std::string var_id;
    int32_t index = 0;
    std::string get_cmd;
    std::string set_cmd;
    std::string var_type;
    std::string var_name;
    std::string name_suffix;
    int32_t get_start_pos = 0;
    int32_t set_start_pos = 0;
    int32_t offset = 0;
    int32_t permission = 0;
    float scale = 1.0f;
    float range_scale = 1.0f;
    std::string default_val;
    // Written by reading workers while the UI reads it: the manager guards it with its catalogue
    // lock (see docs/threads.md).
    std::string current_val;
    std::vector<int32_t> options;
    int32_t visible = 1;
    int32_t option_num = 0;
    int32_t type = 0;
    bool hidden = false;
    VarInfo* switch_var = nullptr;
    std::map<int32_t, std::string> value_to_option;
    bool timer_update = false;
    std::vector<uint8_t> get_payload;
    int32_t min_val = 0;
    int32_t max_val = 0;

    // The catalogue's get_payload column as written (hex digits); part of the read grouping key.
    std::string get_payload_text;
    // The variable is offered in the command/log list.
    bool log_list = false;
};
