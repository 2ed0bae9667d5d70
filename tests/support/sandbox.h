// Test isolation and small helpers shared by every test executable.
//
// Every test process enters a private mount + network namespace before
// anything else (see test_main.cpp): only loopback exists, /var and /dev/shm
// are fresh tmpfs mounts, and /etc/resolv.conf is a private temporary file.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace vekdns::test {

// Enters the sandbox or exits the process with a clear message. Must run
// before any thread is started.
void enter_sandbox();

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool file_exists(const std::string &path);
// Replaces the content of the (private) /etc/resolv.conf.
void set_resolv_conf(const std::string &content);

// Polls `pred` until it holds or `timeout` passes; returns the last value.
bool wait_until(const std::function<bool()> &pred,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Captures every line the library logs while alive (through the registered
// log function); restores standard output logging and the level on exit.
class log_capture {
public:
    explicit log_capture(unsigned level = 6);
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;
    std::vector<std::string> lines() const;
    bool contains(const std::string &needle) const;
    void clear();

private:
    unsigned saved_level_;
};

} // namespace vekdns::test
