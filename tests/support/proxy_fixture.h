// Fixture: the agent side without its loop. A root context with tables, pollset and pools; connections whose
// far ends the test holds; instances whose control threads are only counted.
//
//     Agent agent = connect();
//     registerAgent(agent, kConTypeControl, "appName=shop;...");
//     agent.peer.readLine() ...
#pragma once

#include <apr_portable.h>
#include <sys/socket.h>

#include <string>

#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_registration.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/vx_agent.h"
#include "commonlibc/vx_upcalls.h"
#include "tests/support/fake_collector.h"
#include "tests/support/home_fixture.h"

namespace vx::test {

// One connection: the service's end, and the agent's.
struct Agent {
    apr_socket_t* socket = nullptr;
    epollPtr_t* address = nullptr;  // what registration filled
    FakePeer peer;

    bool refused() const { return vxSocketClosed(socket); }
};

class ProxyFixture : public HomeFixture {
protected:
    void SetUp() override {
        HomeFixture::SetUp();
        apr_pool_create(&VXProxy.listenerPool, nullptr);
        VXProxy.instanceTableSize = kInstanceTableStart;
        VXProxy.proxyMode = 1;
        VXProxy.socketsRefused = 0;
        vxMakeInstanceTables();
        VXProxyInstance.load()[0] = app;
        VXProxy.numInstance = 1;
        ASSERT_EQ(vxMakePollset(), APR_SUCCESS);
        vxFillUpcalls();
        controlThreads = 0;
        vxControlThreadStarter = [](vxApplication* instance) {
            instance->control.controlThreadId = ++controlThreads;
            return 0;
        };
    }
    void TearDown() override {
        VXProxyInstance.load()[0] = nullptr;
        vxUpcalls = VXUpcalls{};
        vxEndPollRound();
        VXProxy.pollset = nullptr;
        apr_pool_destroy(VXProxy.listenerPool);
        HomeFixture::TearDown();
    }

    static Agent connect() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        apr_pool_t* pool = nullptr;
        apr_pool_create(&pool, VXProxy.listenerPool);
        Agent agent;
        apr_os_sock_put(&agent.socket, &ends[0], pool);
        agent.peer = FakePeer(ends[1]);
        return agent;
    }
    static void registerAgent(Agent& agent, int type, std::string fields) {
        parseProxyMsgReq(agent.socket, fields.data(), &agent.address, type);
    }
    // A control connection of the identity that most tests use.
    static Agent process(int pid, const std::string& agentName = "nginx") {
        Agent agent = connect();
        registerAgent(agent, kConTypeControl, controlFields(pid, agentName));
        return agent;
    }
    static std::string controlFields(int pid, const std::string& agentName = "nginx") {
        return "appName=shop;vxAppServerHost=host7;tierName=Web_1;agentType=Dotnet;pid=" +
               std::to_string(pid) + ";agentName=" + agentName + "; ";
    }
    // The names are those of the identity above, the ids are 0 until a test gives others.
    static std::string dataFields(int pid, const std::string& more = "") {
        return "appName=shop;vxAppServerHost=host7;tierName=Web_1;agentName=nginx;pid=" +
               std::to_string(pid) + more;
    }
    static vxApplication& instance(int index = 1) { return *instanceAt(index); }
    static std::int64_t pidOf(int procIndex) { return processAt(instance(), procIndex)->pid; }

    inline static int controlThreads = 0;  // started so far
};

}  // namespace vx::test
