// Test isolation: every test process first enters a private mount + network
// namespace with only loopback, tmpfs on /var and /dev/shm, and a private
// /etc/resolv.conf. Small file helpers.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace vekdns::test {

// Enters the sandbox or exits the process with a clear message. Must run
// before any thread is started.
void enter_sandbox();

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool file_exists(const std::string &path);
// Replaces the content of the (private) /etc/resolv.conf.
void set_resolv_conf(const std::string &content);

// Count of the named semaphore "dns_lock_sem", or -1 when there is none.
int named_sem_value();

// Polls `pred` until it holds or `timeout` passes; returns the last value.
bool wait_until(const std::function<bool()> &pred,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

} // namespace vekdns::test
