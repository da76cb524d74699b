#ifndef GPU_OVERLAY_PICTURE_H
#define GPU_OVERLAY_PICTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "frames/window.h"

/// A picture's pixels: three bytes each, red, green and blue, row by row from the top.
struct Picture {
    PixelSize Size;
    std::vector<uint8_t> Pixels;
};

/// The picture in the framebuffer that is bound, once it is drawn.
Picture ReadPicture(PixelSize size);

/// `picture` as a PNG file. Throws `Failure`.
std::string EncodePng(const Picture& picture);

#endif  // GPU_OVERLAY_PICTURE_H
