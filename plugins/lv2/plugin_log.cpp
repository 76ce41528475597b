#include "plugin_log.h"

namespace tonwerk::lv2 {

// Every line names the plugin: hosts print many plugins' messages together.
PluginLog::PluginLog(const HostFeatures& host) {
    lv2_log_logger_init(&logger_, host.map, host.log);
}

void PluginLog::error(const std::string& message) {
    lv2_log_error(&logger_, "Tonwerk stems: %s\n", message.c_str());
}

void PluginLog::warning(const std::string& message) {
    lv2_log_warning(&logger_, "Tonwerk stems: %s\n", message.c_str());
}

void PluginLog::note(const std::string& message) {
    lv2_log_note(&logger_, "Tonwerk stems: %s\n", message.c_str());
}

}  // namespace tonwerk::lv2
