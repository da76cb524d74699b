#include "frames/picture.h"

#define GL_GLEXT_PROTOTYPES
#include <GL/glcorearb.h>
#include <png.h>

#include <cstddef>

#include "common/failure.h"

namespace {

constexpr size_t kBytesPerPixel = 3;

}  // namespace

Picture ReadPicture(PixelSize size) {
    Picture picture = {size, {}};
    const size_t rowBytes = static_cast<size_t>(size.Width) * kBytesPerPixel;
    picture.Pixels.resize(rowBytes * static_cast<size_t>(size.Height));
    // Rows follow each other without a gap.
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    // OpenGL's rows begin at the bottom.
    for (int row = 0; row < size.Height; ++row) {
        uint8_t* const pixels = picture.Pixels.data() + rowBytes * static_cast<size_t>(size.Height - 1 - row);
        glReadPixels(0, row, size.Width, 1, GL_RGB, GL_UNSIGNED_BYTE, pixels);
    }
    return picture;
}

std::string EncodePng(const Picture& picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.Size.Width);
    image.height = static_cast<png_uint_32>(picture.Size.Height);
    image.format = PNG_FORMAT_RGB;
    std::string file(PNG_IMAGE_PNG_SIZE_MAX(image), '\0');
    png_alloc_size_t size = file.size();
    if (png_image_write_to_memory(&image, file.data(), &size, 0, picture.Pixels.data(), 0, nullptr) == 0) {
        throw Failure(std::string("The picture cannot be written as PNG: ") + image.message + '.');
    }
    file.resize(size);
    return file;
}
