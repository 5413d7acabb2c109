#pragma once
// The module beside the tool that holds everything needing libavformat/libavcodec
// (containers, the decode check). Loaded on first use and kept for the process's life
// (libavformat registers state that must not be unloaded under it).

#include <QString>

// The module's symbol `name`; null with *error set when the module or symbol is missing, or
// when this camcap was built without libavformat.
void* containerModuleSymbol(const char* name, QString* error);

// Decodes a raw elementary stream file (.h264, .hevc, .mjpeg): how many frames came out
// and how many packets the decoder refused. Entry point of the module (DecodeCheck.cpp).
struct DecodeResult {
    long long packets = 0;
    long long frames = 0;
    long long errors = 0;
};
extern "C" bool camcap_decode_check(const char* path, const char* codec, DecodeResult* result, QString* error);
