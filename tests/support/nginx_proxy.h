// nginx as it stands in front of a collector: it takes WSS, checks nothing of its clients, and passes WS on.
#pragma once

#include <memory>
#include <string>

#include "tests/support/program.h"
#include "tests/support/temp_dir.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {

class NginxProxy {
public:
    NginxProxy(int targetPort, const TestCertificate& own) {
        const std::string home = folder_.path();
        folder_.write("nginx.conf",
                      "daemon off;\nmaster_process off;\npid " + home + "/pid;\nerror_log " + home +
                          "/error.log;\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n  "
                          "client_body_temp_path " +
                          home + ";\n  proxy_temp_path " + home + ";\n  fastcgi_temp_path " + home +
                          ";\n  uwsgi_temp_path " + home + ";\n  scgi_temp_path " + home +
                          ";\n  server {\n    listen 127.0.0.1:" + std::to_string(port_) +
                          " ssl;\n    ssl_certificate " + own.certificate + ";\n    ssl_certificate_key " +
                          own.key + ";\n    location /collector/ {\n      proxy_pass http://127.0.0.1:" +
                          std::to_string(targetPort) +
                          ";\n      proxy_http_version 1.1;\n      proxy_set_header Upgrade $http_upgrade;\n"
                          "      proxy_set_header Connection upgrade;\n    }\n  }\n}\n");
        start();
    }
    int port() const { return port_; }
    void killAndStartAgain() {
        program_.reset();
        start();
    }

private:
    void start() {
        program_ =
            std::make_unique<Program>(Program::Setup{{"/usr/sbin/nginx", "-p", folder_.path(), "-c",
                                                      folder_ / "nginx.conf", "-e", folder_ / "error.log"},
                                                     {},
                                                     folder_ / "out"});
    }

    TempDir folder_;
    int port_ = freePort();
    std::unique_ptr<Program> program_;
};

}  // namespace vx::test
