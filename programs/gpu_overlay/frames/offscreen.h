#ifndef GPU_OVERLAY_OFFSCREEN_H
#define GPU_OVERLAY_OFFSCREEN_H

#include "frames/window.h"

/// What is drawn into when nobody looks: a hidden window has no pixels that could be relied on.
class Offscreen {
public:
    /// Throws `Failure` when the driver has no such framebuffer.
    explicit Offscreen(PixelSize size);
    ~Offscreen();

    Offscreen(const Offscreen&) = delete;
    Offscreen& operator=(const Offscreen&) = delete;

    /// Afterwards, frames are drawn into it.
    void Bind() const;
    /// Ends the frame. As when frames are shown, at most two wait to be drawn.
    void Finish();

private:
    unsigned int Framebuffer = 0;
    unsigned int Renderbuffers[2] = {};
    /// The fences of the latest frames, or null. Opaque, so that this header needs no OpenGL.
    void* Fences[2] = {};
    unsigned int Next = 0;
};

#endif  // GPU_OVERLAY_OFFSCREEN_H
