// Fixture: the service without its shell, on a thread of the test.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_server.h"
#include "commonlibc/vx_agent.h"
#include "tests/support/raw_agent.h"
#include "tests/support/temp_dir.h"

namespace vx::test {

// An instance's collector has always answered.
class Listener : public testing::Test {
protected:
    void TearDown() override {
        stop();
        vxListenerReport = {};
    }

    // `more`: further lines of proxysetting.conf.
    void start(int wantedPort = 0, const std::string& more = "") {
        setenv("VXHOME", home.path().c_str(), 1);
        home.write("proxy/config/proxysetting.conf", "proxyPort=" + std::to_string(wantedPort) + "\n" + more);
        vxControlThreadStarter = [](vxApplication* app) {
            app->control.controlThreadId = 1;
            app->control.lws_active = 0;
            app->Server.replyReceived = 1;
            return 0;
        };
        bound = {};
        bindFailures = 0;
        vxListenerReport.listening = [](const char*, int given) { bound.set_value(given); };
        vxListenerReport.bindFailed = [](int, const char*) { ++bindFailures; };
        proxyServerFlag = 1;
        proxyStopFlag = 0;
        worker = std::thread([] { agent_init("DotNetAgent", 3, "ProxyName", "proxy", 0); });
    }
    void startListening(const std::string& more = "") {
        start(0, more);
        std::future<int> found = bound.get_future();
        ASSERT_EQ(found.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        port = found.get();
        ASSERT_GT(port, 0);
    }
    void stop() {
        if (!worker.joinable()) return;
        proxyStopFlag = 1;
        vxWakeListener();
        worker.join();
        proxyStopFlag = 0;
    }

    static std::string line(const char* prefix, int pid) {
        return prefix + std::string("appName=a;vxAppServerHost=b;tierName=c;agentName=d;pid=") +
               std::to_string(pid) + "\n";
    }
    // A process of the one identity; the first makes the instance and is not answered.
    FakePeer agent(int pid) const {
        FakePeer peer = connectTo(port);
        peer.send(line("vx_ctrl_msg_req:", pid));
        return peer;
    }
    // True when the loop still answers an agent.
    bool serves(int pid = 9999) const {
        return agent(pid).readLine().starts_with("vx_ctrl_msg_rep:result=Ok;procIndex=");
    }

    inline static std::promise<int> bound;
    inline static std::atomic<int> bindFailures{0};
    TempDir home;
    std::thread worker;
    int port = 0;
};

}  // namespace vx::test
