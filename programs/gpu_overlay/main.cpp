#include "scene/scene.h"

int main() {
    return 0;
}
