#include "text/utc_time.h"

#include <time.h>

#include <chrono>
#include <iomanip>
#include <sstream>

std::string UtcTime(double steadySeconds) {
    using std::chrono::milliseconds;
    const std::chrono::duration<double> sinceBoot(steadySeconds);
    const auto age = std::chrono::steady_clock::now().time_since_epoch() - sinceBoot;
    const auto moment = std::chrono::system_clock::now().time_since_epoch() - age;
    const auto sinceEpoch = std::chrono::duration_cast<milliseconds>(moment).count();
    const auto seconds = static_cast<time_t>(sinceEpoch / 1000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    std::ostringstream text;
    text << std::put_time(&utc, "%Y-%m-%dT%H:%M:%S.") << std::setw(3) << std::setfill('0') << sinceEpoch % 1000 << 'Z';
    return text.str();
}
