#ifndef BOARDS_H
#define BOARDS_H

#include <cstdint>

/// Makes the simulated NVML one of `count` boards that answer at once and always the same, each with `processes`
/// compute and as many graphics processes. NVML has to be closed.
void UseBoards(int64_t count, int64_t processes = 0);

#endif  // BOARDS_H
