#include "gzip/HttpGunzip.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "gzip/GzipForm.h"

namespace QOR {
namespace {

class Inflater {
public:
    Inflater() {
        if (::inflateInit2(&stream, gzipWindow) != Z_OK)
            throw QORException(errFailure, "there is no memory to unpack the body", QOR_SOURCE_PATH);
    }
    ~Inflater() { ::inflateEnd(&stream); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    z_stream stream{};
};

[[noreturn]] void refuse(const char* why) {
    throw QORException(errBadRequest, std::string("the body is not what gzip makes: ") + why, QOR_SOURCE_PATH);
}

}  // namespace

HttpUnpackedBody gunzip(std::string_view packed, std::size_t most) {
    HttpUnpackedBody body;
    Inflater inflater;
    z_stream& stream = inflater.stream;
    std::array<char, std::size_t{64} << 10> piece{};
    bool ended = false;
    while (!ended || stream.avail_in > 0 || !packed.empty()) {
        if (stream.avail_in == 0 && !packed.empty()) {
            const auto now = packed.substr(0, std::numeric_limits<uInt>::max());
            packed.remove_prefix(now.size());
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(now.data()));  // NOLINT: it is read only
            stream.avail_in = static_cast<uInt>(now.size());
        }
        if (ended) ::inflateReset(&stream);
        stream.next_out = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_out = static_cast<uInt>(piece.size());
        const int result = ::inflate(&stream, Z_NO_FLUSH);
        const std::size_t made = piece.size() - stream.avail_out;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
            refuse(stream.msg ? stream.msg : "damaged");
        if (made > most - body.text.size()) {
            throw QORException(errTooLarge,
                               "the body is larger than " + std::to_string(most) + " bytes when it is unpacked",
                               QOR_SOURCE_PATH);
        }
        if (body.text.size() + made > body.text.capacity()) {
            const std::size_t room = std::min(most, std::max(body.text.capacity() * 2, piece.size()));
            body.memory.set(room, "the body");
            body.text.reserve(room);
        }
        body.text.append(piece.data(), made);
        ended = result == Z_STREAM_END;
        if (!ended && made == 0 && stream.avail_in == 0 && packed.empty()) refuse("it breaks off");
    }
    return body;
}

}  // namespace QOR
