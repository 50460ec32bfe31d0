// A ClickHouse server of a test: on free ports of loopback, its files in a folder of the test's own.
#pragma once

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/program.h"
#include "tests/support/temp_dir.h"
#include "tools/collector/store_http.h"

namespace vx::test {

class ClickHouse {
public:
    static bool isInstalled() { return !programFile().empty(); }

    // Starts it, with the data of before; false when it does not answer in time.
    bool start() {
        dir_.write("config.xml",
                   "<yandex><logger><level>warning</level><log>" + dir_ / "log</log><errorlog>" +
                       dir_ / "err</errorlog></logger><http_port>" + std::to_string(port_) +
                       "</http_port><tcp_port>" + std::to_string(freePort()) +
                       "</tcp_port><listen_host>127.0.0.1</listen_host><path>" +
                       dir_ / "data/</path><tmp_path>" + dir_ / "tmp/</tmp_path><users_config>" +
                       dir_ /
                           "users.xml</users_config><default_profile>default</default_profile>"
                           "<default_database>default</default_database>"
                           "<mark_cache_size>50000000</mark_cache_size></yandex>");
        dir_.write(
            "users.xml",
            "<yandex><profiles><default><max_memory_usage>1000000000</max_memory_usage></default></profiles>"
            "<users><default><password></password><networks><ip>127.0.0.1</ip></networks>"
            "<profile>default</profile><quota>default</quota></default></users>"
            "<quotas><default><interval><duration>3600</duration><queries>0</queries><errors>0</errors>"
            "<result_rows>0</result_rows><read_rows>0</read_rows><execution_time>0</execution_time>"
            "</interval></default></quotas></yandex>");
        Program::Setup setup;
        setup.arguments = {programFile(), "--config-file=" + dir_ / "config.xml"};
        setup.outputFile = dir_ / "output";
        program_ = std::make_unique<Program>(setup);
        collector::HttpAddress address;
        return collector::readAddress(url(), address) &&
               eventually([&] { return collector::postStatement(address, "SELECT 1", "", "").status == 200; },
                          150);
    }
    void stop() {
        program_->signal(SIGTERM);
        program_->wait(60);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/vx"; }

private:
    static std::string programFile() {
        for (const char* path : {"/usr/sbin/clickhouse-server", "/usr/bin/clickhouse-server"})
            if (std::filesystem::exists(path)) return path;
        return {};
    }

    TempDir dir_;
    const int port_ = freePort();
    std::unique_ptr<Program> program_;
};

}  // namespace vx::test
