#ifndef GPU_OVERLAY_RUN_REPORT_H
#define GPU_OVERLAY_RUN_REPORT_H

#include <string>

#include "frames/frame_log.h"
#include "frames/stage.h"
#include "gpu_feed/feed_data.h"

/// How a run was.
struct RunFacts {
    std::string Renderer;
    std::string OpenGl;
    PixelSize Size;
    bool bVsync;
};

/// What a run has measured, as JSON. A value that was not measured is left out.
std::string ReportJson(const RunFacts& facts, const FrameLog& log, const gpu_feed::FeedMoment& moment);

#endif  // GPU_OVERLAY_RUN_REPORT_H
