#define GL_GLEXT_PROTOTYPES
#include "scene/scene.h"

#include <GL/glcorearb.h>

void Scene::Draw(int width, int height, double /*seconds*/, int /*load*/) {
    glViewport(0, 0, width, height);
    glClearColor(0.1F, 0.12F, 0.16F, 1.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
}
