#define GL_GLEXT_PROTOTYPES
#include <GL/glcorearb.h>

#include <string_view>
#include <vector>

#include "timer_queries.h"

namespace {

bool IsSoftwareRenderer() {
    const auto* const text = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
    const std::string_view renderer = text != nullptr ? text : "";
    for (const std::string_view name : {"llvmpipe", "softpipe", "Software Rasterizer"}) {
        if (renderer.find(name) != std::string_view::npos) return true;
    }
    return false;
}

class OpenGlTimerQueries : public TimerQueries {
public:
    ~OpenGlTimerQueries() override { glDeleteQueries(static_cast<GLsizei>(Names.size()), Names.data()); }

    void Issue(std::size_t slot) override {
        if (slot >= Names.size()) {
            const std::size_t made = Names.size();
            Names.resize(slot + 1);
            glGenQueries(static_cast<GLsizei>(Names.size() - made), &Names[made]);
        }
        glQueryCounter(Names[slot], GL_TIMESTAMP);
        // A software renderer collects commands, and draws tile by tile all that it has collected. It then takes a
        // timestamp in each tile and keeps the latest: the time from one timestamp to the next is that of the last
        // tile. The flush makes it draw what comes before the timestamp apart from what follows.
        if (bSoftware) glFlush();
    }

    bool IsReady(std::size_t slot) override {
        GLint available = GL_FALSE;
        glGetQueryObjectiv(Names[slot], GL_QUERY_RESULT_AVAILABLE, &available);
        return available != GL_FALSE;
    }

    std::uint64_t Nanoseconds(std::size_t slot) override {
        GLuint64 nanoseconds = 0;
        glGetQueryObjectui64v(Names[slot], GL_QUERY_RESULT, &nanoseconds);
        return nanoseconds;
    }

private:
    const bool bSoftware = IsSoftwareRenderer();
    std::vector<GLuint> Names;
};

}  // namespace

std::unique_ptr<TimerQueries> MakeOpenGlTimerQueries() {
    GLint bits = 0;
    glGetQueryiv(GL_TIMESTAMP, GL_QUERY_COUNTER_BITS, &bits);
    if (bits == 0) return nullptr;
    return std::make_unique<OpenGlTimerQueries>();
}
