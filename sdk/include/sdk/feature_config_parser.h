#pragma once

#include <string>

// Per-model features from ./Config/feature_config.csv (see docs/catalogue-format.md).
class FeatureConfigParser {
  public:
    // True when the model connects from a fixed local client port (the host/port text of the
    // VRC client is offered to the user). A missing file or model row gives false.
    static bool Load(const std::string& csvPath, const std::string& model);
};
