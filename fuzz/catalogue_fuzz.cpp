// The catalogue parser on arbitrary CSV: it must report and skip what it cannot use, never crash,
// and leave a tree whose pointers are all into its own variables.

#include <cstdlib>
#include <set>

#include "fuzz_support.h"
#include "sdk/config_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::SilenceLogger();
    ConfigParser parser(fuzzing::WriteScratchFile(data, size, ".csv"));
    parser.ExtractConfigInfo();
    std::set<const VarInfo*> owned;
    for (const auto& var : parser.AllVars()) owned.insert(var.get());
    for (const auto& module : parser.varTree)
        for (const auto& page : module)
            for (const VarInfo* var : page)
                if (owned.count(var) == 0) std::abort();
    for (const auto& var : parser.AllVars()) {
        if (var->switch_var != nullptr && owned.count(var->switch_var) == 0) std::abort();
        parser.GetVarInfoByName(var->var_name);
        parser.GetVarInfoByVarID(var->var_id);
        std::pair<int, int> position;
        parser.GetVarPosOffset(var->get_cmd, var->var_id, 64, position);
        parser.GetVarInfosBySetCmd(var->set_cmd);
    }
    return 0;
}
