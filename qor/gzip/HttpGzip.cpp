#include "gzip/HttpGzip.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "gzip/GzipForm.h"

namespace QOR {
namespace {

constexpr int memory = 8;
constexpr std::size_t mostAtOnce = std::size_t{1} << 30;

}  // namespace

struct HttpGzip::Impl {
    Impl() {
        if (::deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, gzipWindow, memory, Z_DEFAULT_STRATEGY) != Z_OK)
            throw QORException(errFailure, "there is no memory to make the answer smaller", QOR_SOURCE_PATH);
    }
    ~Impl() { ::deflateEnd(&stream); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    z_stream stream{};
};

HttpGzip::HttpGzip() : m_impl(std::make_unique<Impl>()) {}

HttpGzip::~HttpGzip() = default;

std::string HttpGzip::add(std::string_view text) {
    return run(text, Z_SYNC_FLUSH);
}

std::string HttpGzip::put(std::string_view text) {
    return run(text, Z_NO_FLUSH);
}

std::string HttpGzip::finish(std::string_view text) {
    return run(text, Z_FINISH);
}

std::string HttpGzip::run(std::string_view text, int flush) {
    z_stream& stream = m_impl->stream;
    std::string made;
    std::array<char, std::size_t{16} << 10> piece{};
    bool last = false;
    while (!last) {
        const std::string_view now = text.substr(0, mostAtOnce);
        text.remove_prefix(now.size());
        last = text.empty();
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(now.data()));  // NOLINT: it is read only
        stream.avail_in = static_cast<uInt>(now.size());
        do {
            stream.next_out = reinterpret_cast<Bytef*>(piece.data());
            stream.avail_out = static_cast<uInt>(piece.size());
            ::deflate(&stream, last ? flush : Z_NO_FLUSH);
            made.append(piece.data(), piece.size() - stream.avail_out);
        } while (stream.avail_out == 0);
    }
    return made;
}

}  // namespace QOR
