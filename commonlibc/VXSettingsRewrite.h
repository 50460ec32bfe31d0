// Rewriting of the agent settings file "config/vxsettings.conf" after a reroute.
//
// Only the lines of what changes are replaced, where there is one; every other line, comments included,
// stays as it is. The new file is made beside the old one and takes its place whole and written out, with
// its rights: a crash leaves the one or the other.
//
// Limits    The first 1,024 bytes of the new file, up to the end of a line, are looked at; what stands
//           behind them stays as it is. A file above 1 MB is left alone.
// Errors    A file that cannot be read or replaced is traced and stays.
// Threads   Control threads; current context. The settings-file mutex is held meanwhile.
#pragma once

namespace vx {

// Null texts and port 0: that line stays. The port goes into the TCP item of VXC_COMM_PROTOCOL, too.
struct VXSettingsChange {
    const char *tier, *server, *vxcHost;
    int vxcPort;
};

// 0, or -1 when the file was not replaced. The context then takes the new size and date as those it has
// read: it has the values.
int updateVXSettingFile(const VXSettingsChange& change);

}  // namespace vx
