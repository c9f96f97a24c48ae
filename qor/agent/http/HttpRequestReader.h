/// \file
/// The bytes of a request, read strictly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/http/HttpTypes.h"

namespace QOR {

/// Reads one HTTP/1.x request as its bytes arrive, piece by piece of any size.
///
/// Whatever two readers could take for requests of different length is refused, because a proxy in front may be the
/// other reader: lines that end in anything but CR LF, folded lines, blanks before a colon, control characters, a
/// Content-Length that is given twice or is more than digits, any Transfer-Encoding but `chunked` alone, both of them
/// together, chunk sizes and extensions outside the grammar. General-purpose parsers accept some of these. The
/// connection that brought such bytes must be closed: where its next request begins is anybody's guess.
///
/// One thread; owns what it has read.
class HttpRequestReader {
public:
    enum class State : std::uint8_t {
        Head,      ///< the head is not complete
        HeadDone,  ///< the head is complete; beginBody() goes on
        Body,      ///< the body is not complete
        Done,      ///< the request is complete
        Failed,    ///< failure() says why; nothing more is taken
    };

    struct Failure {
        unsigned status = 0;
        std::string message{};
    };

    /// \param headLimit bytes of the request line and the fields, and as many of a chunked body's framing in one place
    /// \param bodyLimit bytes of the body
    HttpRequestReader(std::size_t headLimit, std::size_t bodyLimit) : m_headLimit(headLimit), m_bodyLimit(bodyLimit) {}

    /// What is said of a body of more than the limit, with status 413.
    static std::string tooLargeBody(std::size_t limit);

    State state() const noexcept { return m_state; }
    const Failure& failure() const noexcept { return m_failure; }
    /// True when nothing has been taken so far.
    bool isEmpty() const noexcept { return m_head.empty(); }

    /// Takes bytes as far as they belong to the part that is being read: stops behind the head and behind the request.
    /// \returns how many were taken
    std::size_t take(std::string_view bytes);

    // ---- From HeadDone on.
    std::string_view method() const noexcept { return m_method; }
    std::string_view target() const noexcept { return m_target; }
    unsigned version() const noexcept { return m_version; }  ///< 10 or 11
    std::span<const HttpField> fields() const noexcept { return m_fields; }
    /// True when the client and its version of HTTP leave the connection open.
    bool keepAlive() const noexcept { return m_keepAlive && !m_close; }
    /// The body's length as it was announced; nothing for a chunked body. 0 when there is none.
    std::optional<std::uint64_t> bodyLength() const noexcept;
    void beginBody();

    const std::string& body() const noexcept { return m_body; }
    /// Makes room, so that the body does not move while it grows.
    void reserveBody(std::size_t bytes) { m_body.reserve(bytes); }

private:
    enum class Chunk : std::uint8_t { Size, Data, DataEnd, Trailer };
    /// Where a piece lies in m_head, which may move while it grows.
    struct Piece {
        std::size_t at;
        std::size_t size;
    };
    struct FieldPieces {
        Piece name;
        Piece value;
    };

    std::size_t takeHead(std::string_view bytes);
    std::size_t takeBody(std::string_view bytes);
    std::size_t takeChunked(std::string_view bytes);
    std::size_t takeChunkLine(std::string_view bytes);
    std::size_t takeChunkEnd(std::string_view bytes);
    void readHeadLine(std::size_t begin, std::size_t end);
    void readRequestLine(std::string_view line);
    void readField(std::size_t begin, std::size_t end);
    void readChunkLine(std::string_view line);
    void readChunkSize(std::string_view line);
    void finishHead();
    void readBodyFields();
    void readContentLength(std::string_view value);
    void readConnection(std::string_view value);
    void fail(unsigned status, std::string message);
    void failSyntax(const char* what) { fail(400, std::string("this is not HTTP: ") + what); }
    bool hasFailed() const noexcept { return m_state == State::Failed; }
    std::string_view viewOf(Piece piece) const { return std::string_view(m_head).substr(piece.at, piece.size); }

    const std::size_t m_headLimit;
    const std::size_t m_bodyLimit;
    State m_state = State::Head;
    Failure m_failure;
    std::string m_head;           ///< as it arrived, complete lines and the beginning of the next
    std::size_t m_lineBegin = 0;  ///< of the line that is being read
    bool m_hasRequestLine = false;
    Piece m_methodPiece{};
    Piece m_targetPiece{};
    std::vector<FieldPieces> m_pieces;
    std::string_view m_method;
    std::string_view m_target;
    std::vector<HttpField> m_fields;
    unsigned m_version = 11;
    bool m_keepAlive = true;
    bool m_close = false;  ///< asked for, which counts more than anything beside it
    bool m_chunked = false;
    std::uint64_t m_length = 0;  ///< announced, or of the chunk that is being read: bytes that are still to come
    std::string m_body;
    Chunk m_chunk = Chunk::Size;
    std::string m_line;         ///< a line of the chunked body's framing
    std::size_t m_framing = 0;  ///< bytes of extensions and trailers so far
};

}  // namespace QOR
