// The test web server (tests/support/http_test_server.py) as a child process
// serving a folder, over TLS when a certificate and key are given. Needs
// MOX_HTTP_TEST_SERVER, the script's path.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace moxtest {

class HttpServer {
public:
    HttpServer(const std::string& root, const std::string& portFile, const std::string& cert = "",
               const std::string& key = "") {
        m_pid = fork();
        if (m_pid == 0) {
            if (cert.empty())
                execlp("python3", "python3", MOX_HTTP_TEST_SERVER, root.c_str(), portFile.c_str(), nullptr);
            else
                execlp("python3", "python3", MOX_HTTP_TEST_SERVER, root.c_str(), portFile.c_str(), cert.c_str(),
                       key.c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; i < 200 && port == 0; ++i) {
            std::ifstream in(portFile);
            if (!(in >> port)) std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    ~HttpServer() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    // 0 when the server did not start.
    int port = 0;

private:
    pid_t m_pid = -1;
};

}  // namespace moxtest
