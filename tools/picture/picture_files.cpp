// Pictures as files, by libpng and libjpeg.
#include <png.h>

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>  // needs FILE

#include "common/options.h"
#include "common/output_file.h"
#include "picture/drawing.h"

void write_png(const std::string& name, const Picture& picture) {
  OutputFile file(name);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(picture.nx);
  image.height = static_cast<png_uint_32>(picture.ny);
  image.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_stdio(&image, file.stream(), 0, picture.rgb.data(), 0, nullptr))
    refuse("writing %s failed: %s", name.c_str(), image.message);
  file.finish();
}

std::string jpeg_of(int nx, int ny, const std::vector<uint8_t>& levels, int quality) {
  jpeg_compress_struct jpeg;
  jpeg_error_mgr errors;
  jpeg.err = jpeg_std_error(&errors);  // ends the process where there is no memory, the one thing that can go wrong
  jpeg_create_compress(&jpeg);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&jpeg, &bytes, &size);
  jpeg.image_width = static_cast<JDIMENSION>(nx);
  jpeg.image_height = static_cast<JDIMENSION>(ny);
  jpeg.input_components = 1;
  jpeg.in_color_space = JCS_GRAYSCALE;
  jpeg_set_defaults(&jpeg);
  jpeg_set_quality(&jpeg, quality, TRUE);
  jpeg_start_compress(&jpeg, TRUE);
  while (jpeg.next_scanline < jpeg.image_height) {
    auto* row = const_cast<JSAMPLE*>(&levels[static_cast<size_t>(jpeg.next_scanline) * static_cast<size_t>(nx)]);
    jpeg_write_scanlines(&jpeg, &row, 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  std::string file(reinterpret_cast<const char*>(bytes), size);
  free(bytes);
  return file;
}
