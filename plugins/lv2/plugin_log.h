// Messages for the user: through the host's log when it offers one, else
// to stderr.
#pragma once

#include "host_features.h"

#include <lv2/log/logger.h>

#include <string>

namespace tonwerk::lv2 {

class PluginLog {
public:
    explicit PluginLog(const HostFeatures& host);
    void error(const std::string& message);
    void warning(const std::string& message);
    void note(const std::string& message);

private:
    LV2_Log_Logger logger_{};
};

}  // namespace tonwerk::lv2
