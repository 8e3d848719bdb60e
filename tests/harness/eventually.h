// Waits for a condition that another process or thread makes true.
#ifndef MAILSERVER_TESTS_HARNESS_EVENTUALLY_H_
#define MAILSERVER_TESTS_HARNESS_EVENTUALLY_H_

#include <chrono>
#include <thread>

namespace qsvtest {

// Whether `ready()` holds within `seconds`, asked every 50 ms.
template <typename Ready>
bool Eventually(Ready ready, int seconds = 30) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_EVENTUALLY_H_
