#include <kx/system/kxTime.h>

#include <sched.h>

#include <chrono>
#include <thread>

namespace kx {

int64_t GetTimeBaseMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int64_t GetMSecElapsedSinceEpoch() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

int64_t GetSecondsSinceEpoch() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

unsigned int GetIdealThreadCount() {
  // hardware_concurrency() counts every CPU of the machine; a container or a taskset may grant far
  // fewer, and sizing pools by the machine would oversubscribe them.
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int count = CPU_COUNT(&set);
    if (count > 0) return static_cast<unsigned int>(count);
  }
  const unsigned int hardware = std::thread::hardware_concurrency();
  return hardware > 0 ? hardware : 1;
}

}  // namespace kx
