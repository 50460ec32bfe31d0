// The agent settings: environment first, then "config/vxsettings.conf" of the home.
//
// A settings pass is read_env_var(), then read_conf_file() (which has nothing to do once the environment
// named the collector). What a variable gave, the file does not change. On an instance that is set up
// already only the collector's side of the settings acts: host, ports, protocols, retry, backup, trace
// levels; its identity is that of its agents.
//
// At its end a pass fills in what was not given: tier "Default", port 443, WSS as the only protocol, host
// and port of proxysetting.conf; then the collector records are made from it.
//
// Limits    Lines of at most 2,048 bytes.
// Errors    A line that is not understood, too long, or without a valid value is traced with its number
//           or key and has no effect; so is an empty value.
// Threads   Start-up of a context, then its control thread; all on the current context. The settings-file
//           mutex is held while the file is read or rewritten; under it only the trace is taken.
#pragma once

#include <mutex>

namespace vx {

inline constexpr const char* kSettingsFileName = "vxsettings.conf";

extern std::mutex vxSettingsFileMutex;

// 0 when the collector host was given and the settings are complete, 1 when the file is still needed.
int read_env_var();
// 0 on success (at once when the environment configured the context), 1 on failure: no collector is named
// where one is needed, or the file cannot be read and nothing else names a collector.
int read_conf_file();
// 1 when size or date of the file differ from those held and the file is not empty, else 0. The figures
// held are those of the last reading; with flag 0 this call takes the new ones, too.
int check_file_size_of_vxsetting_files(int flag);

}  // namespace vx
