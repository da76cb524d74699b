#include "frames/offscreen.h"

#define GL_GLEXT_PROTOTYPES
#include <GL/glcorearb.h>

#include <iterator>

#include "common/failure.h"

namespace {

/// A driver that needs longer for a frame gets the next one all the same.
constexpr GLuint64 kLongestFrameNs = 1'000'000'000;

}  // namespace

Offscreen::Offscreen(PixelSize size) {
    glGenFramebuffers(1, &Framebuffer);
    glGenRenderbuffers(2, Renderbuffers);
    Bind();
    constexpr GLenum kFormats[] = {GL_RGBA8, GL_DEPTH24_STENCIL8};
    constexpr GLenum kAttachments[] = {GL_COLOR_ATTACHMENT0, GL_DEPTH_STENCIL_ATTACHMENT};
    for (int i = 0; i < 2; ++i) {
        glBindRenderbuffer(GL_RENDERBUFFER, Renderbuffers[i]);
        glRenderbufferStorage(GL_RENDERBUFFER, kFormats[i], size.Width, size.Height);
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, kAttachments[i], GL_RENDERBUFFER, Renderbuffers[i]);
    }
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        throw Failure("OpenGL cannot draw a picture of " + std::to_string(size.Width) + " x " +
                      std::to_string(size.Height) + " pixels.");
    }
}

Offscreen::~Offscreen() {
    for (void* fence : Fences) glDeleteSync(static_cast<GLsync>(fence));
    glDeleteRenderbuffers(2, Renderbuffers);
    glDeleteFramebuffers(1, &Framebuffer);
}

void Offscreen::Bind() const {
    glBindFramebuffer(GL_FRAMEBUFFER, Framebuffer);
}

void Offscreen::Finish() {
    void*& fence = Fences[Next++ % std::size(Fences)];
    if (fence != nullptr) {
        glClientWaitSync(static_cast<GLsync>(fence), GL_SYNC_FLUSH_COMMANDS_BIT, kLongestFrameNs);
        glDeleteSync(static_cast<GLsync>(fence));
    }
    fence = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
}
