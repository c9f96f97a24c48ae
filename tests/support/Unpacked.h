/// \file
/// What stands in texts of gzip's form, told apart from the code that makes them.
#pragma once

#include <zlib.h>

#include <array>
#include <stdexcept>
#include <string>

namespace QOR::test {

/// As far as it has come. \param whole set to whether its end was there
inline std::string unpacked(const std::string& packed, bool* whole = nullptr) {
    z_stream stream{};
    if (::inflateInit2(&stream, 15 + 16) != Z_OK) throw std::runtime_error("no memory");
    std::string input = packed;
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    std::string text;
    std::array<char, 65536> piece{};
    int state = Z_OK;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_out = static_cast<uInt>(piece.size());
        state = ::inflate(&stream, Z_SYNC_FLUSH);
        text.append(piece.data(), piece.size() - stream.avail_out);
    } while (state == Z_OK && stream.avail_out == 0);
    ::inflateEnd(&stream);
    if (state != Z_OK && state != Z_STREAM_END && state != Z_BUF_ERROR) throw std::runtime_error("this is no gzip");
    if (whole != nullptr) *whole = state == Z_STREAM_END && stream.avail_in == 0;
    return text;
}

/// One that must be whole, with nothing behind it.
inline std::string unpackedWhole(const std::string& packed) {
    bool whole = false;
    std::string text = unpacked(packed, &whole);
    if (!whole) throw std::runtime_error("it does not end where it should");
    return text;
}

}  // namespace QOR::test
