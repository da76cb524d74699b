#ifndef GPU_OVERLAY_GL_OBJECTS_H
#define GPU_OVERLAY_GL_OBJECTS_H

#define GL_GLEXT_PROTOTYPES
#include <GL/glcorearb.h>

#include <initializer_list>

/// Objects of the current OpenGL context. Each owns its object and needs that context at its end.
class GlObject {
public:
    GlObject(const GlObject&) = delete;
    GlObject& operator=(const GlObject&) = delete;

    GLuint Name = 0;

protected:
    GlObject() = default;
    ~GlObject() = default;
};

class GlBuffer : public GlObject {
public:
    GlBuffer() { glGenBuffers(1, &Name); }
    ~GlBuffer() { glDeleteBuffers(1, &Name); }
};

class GlVertexArray : public GlObject {
public:
    GlVertexArray() { glGenVertexArrays(1, &Name); }
    ~GlVertexArray() { glDeleteVertexArrays(1, &Name); }
};

/// One stage of a program; its text is in parts.
class GlShader : public GlObject {
public:
    /// Throws Failure when the driver does not compile it.
    GlShader(GLenum stage, std::initializer_list<const char*> parts);
    ~GlShader() { glDeleteShader(Name); }
};

class GlProgram : public GlObject {
public:
    /// Throws Failure when the driver does not link it.
    GlProgram(const GlShader& vertexShader, const GlShader& fragmentShader);
    ~GlProgram() { glDeleteProgram(Name); }
};

#endif  // GPU_OVERLAY_GL_OBJECTS_H
