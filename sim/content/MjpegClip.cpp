// MJPEG clip with libjpeg: baseline JPEGs sampled 4:2:2 as USB cameras send them, each one
// a complete SOI..EOI image.
#include "content/Clip.h"
#include "content/Pattern.h"

#include <cstdio> // jpeglib.h needs FILE
#include <jpeglib.h>

#include <csetjmp>
#include <cstdlib>

namespace simcam {

namespace {

constexpr int kQuality = 80;

struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};

[[noreturn]] void onError(j_common_ptr cinfo)
{
    char message[JMSG_LENGTH_MAX];
    cinfo->err->format_message(cinfo, message);
    std::fprintf(stderr, "content: JPEG encoder: %s\n", message);
    std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1);
}

// Compresses one YUYV picture. libjpeg takes interleaved Y Cb Cr pixels, so each row is
// spread out with its chroma doubled; the 2x1 downsampling then gives back the exact
// samples. Kept free of C++ objects with destructors because of the longjmp.
bool compress(jpeg_compress_struct* cinfo, const uint8_t* yuyv, int w, int h, uint8_t* row,
              unsigned char** out, unsigned long* outSize)
{
    ErrorManager* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    if (setjmp(err->jump)) {
        jpeg_abort_compress(cinfo);
        return false;
    }
    jpeg_mem_dest(cinfo, out, outSize);
    cinfo->image_width = JDIMENSION(w);
    cinfo->image_height = JDIMENSION(h);
    cinfo->input_components = 3;
    cinfo->in_color_space = JCS_YCbCr;
    jpeg_set_defaults(cinfo);
    jpeg_set_quality(cinfo, kQuality, TRUE);
    cinfo->comp_info[0].h_samp_factor = 2;
    cinfo->comp_info[0].v_samp_factor = 1;
    for (int c = 1; c < 3; ++c)
        cinfo->comp_info[c].h_samp_factor = cinfo->comp_info[c].v_samp_factor = 1;
    cinfo->dct_method = JDCT_ISLOW;
    jpeg_start_compress(cinfo, TRUE);
    while (cinfo->next_scanline < cinfo->image_height) {
        const uint8_t* s = yuyv + size_t(cinfo->next_scanline) * size_t(w) * 2;
        for (int i = 0; i < w / 2; ++i) {
            uint8_t* d = row + 6 * i;
            d[0] = s[4 * i];
            d[1] = d[4] = s[4 * i + 1];
            d[2] = d[5] = s[4 * i + 3];
            d[3] = s[4 * i + 2];
        }
        JSAMPROW rows[1] = {row};
        jpeg_write_scanlines(cinfo, rows, 1);
    }
    jpeg_finish_compress(cinfo);
    return true;
}

} // namespace

CodedClip encodeMjpegClip(const Pattern& pattern, const ContentOptions& options)
{
    const int w = pattern.width(), h = pattern.height();
    std::vector<uint8_t> yuyv(size_t(w) * h * 2);
    std::vector<uint8_t> row(size_t(w) * 3);

    jpeg_compress_struct cinfo;
    ErrorManager err;
    cinfo.err = jpeg_std_error(&err.base);
    err.base.error_exit = onError;
    jpeg_create_compress(&cinfo);

    CodedClip clip;
    for (int i = 0; i < options.clipFrames; ++i) {
        pattern.renderYUYV(uint64_t(i), yuyv.data(), size_t(w) * 2);
        unsigned char* out = nullptr;
        unsigned long outSize = 0;
        const bool ok = compress(&cinfo, yuyv.data(), w, h, row.data(), &out, &outSize);
        if (ok)
            clip.units.emplace_back(out, out + outSize);
        std::free(out); // jpeg_mem_dest's buffer is malloc'd and left to us
        if (!ok) {
            clip = {};
            break;
        }
        clip.key.push_back(true);
    }
    jpeg_destroy_compress(&cinfo);
    return clip;
}

} // namespace simcam
