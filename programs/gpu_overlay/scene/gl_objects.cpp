#include "scene/gl_objects.h"

#include <string>

#include "common/failure.h"

namespace {

// Throws the first line of the driver's log when `status` says that something failed.
void RequireSuccess(GLint status, const std::string& what, const std::string& log) {
    if (status != GL_FALSE) return;
    throw Failure("OpenGL cannot " + what + ": " + log.substr(0, log.find('\n')) + '.');
}

constexpr GLsizei kLogBytes = 1024;

}  // namespace

GlShader::GlShader(GLenum stage, std::initializer_list<const char*> parts) {
    Name = glCreateShader(stage);
    glShaderSource(Name, static_cast<GLsizei>(parts.size()), parts.begin(), nullptr);
    glCompileShader(Name);
    GLint status = GL_FALSE;
    glGetShaderiv(Name, GL_COMPILE_STATUS, &status);
    char log[kLogBytes] = "";
    glGetShaderInfoLog(Name, kLogBytes, nullptr, log);
    RequireSuccess(status, "compile a shader of the scene", log);
}

GlProgram::GlProgram(const GlShader& vertexShader, const GlShader& fragmentShader) {
    Name = glCreateProgram();
    glAttachShader(Name, vertexShader.Name);
    glAttachShader(Name, fragmentShader.Name);
    glLinkProgram(Name);
    GLint status = GL_FALSE;
    glGetProgramiv(Name, GL_LINK_STATUS, &status);
    char log[kLogBytes] = "";
    glGetProgramInfoLog(Name, kLogBytes, nullptr, log);
    RequireSuccess(status, "link the scene's shaders", log);
}
