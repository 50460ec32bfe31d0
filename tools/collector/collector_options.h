// Command line of vxcollector.
#pragma once

#include <cstdint>
#include <string>

namespace vx::collector {

struct Options {
    int listenPort = -1;  // 0: a port of the system's choice, printed at start; below 0: none
    int wsPort = -1, wssPort = -1;
    std::string certificateFile, keyFile;  // of WSS
    std::string offer;                     // protocols in replies, as in "WSS:443,TCP:80"; empty: see Ways
    std::string listenHost = "0.0.0.0";
    std::string keywordsFile;               // one key=value a line; replaces the default keywords
    std::string filesDir;                   // files to hand out; empty: none
    std::string outDir;                     // streams are written here when given
    std::string retryPolicy = "3%5%10%60";  // attempts % seconds % heartbeats missed % heartbeat period
    std::string portFile;                   // the bound port is written here when given
    std::string databaseFile;               // what arrives is stored there when given
    std::string clickHouse;                 // address of a ClickHouse server to store in, in place of a file
    int collectorId = 0;                    // of those that write there
    double keepDays = 7, keepMb = 4096;     // how long, and how much of it
    int httpPort = -1;                      // of the web page; below 0: none
    std::string httpHost = "127.0.0.1";
    std::string httpTokenFile;  // its token is asked for; needed where others reach the page
    std::string httpName;       // a further name of this machine, as browsers call it
    double tableSeconds = 5;    // pause between tables on a terminal
    double heartbeatSeconds = 10;
    double runSeconds = 0;  // ends by itself after this; 0: never
    bool autoStart = true;  // starts instrumentation as soon as an instance connects
};

enum class OptionsResult { kRun, kExitOk, kExitBad };
// Reads argv; prints help, version or the error itself.
OptionsResult readOptions(int argc, char** argv, Options& out);

}  // namespace vx::collector
