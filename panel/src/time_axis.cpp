#include "time_axis.h"

namespace gpu_panel {

void TimeAxis::Update(double now) {
    End = now;
}

}  // namespace gpu_panel
