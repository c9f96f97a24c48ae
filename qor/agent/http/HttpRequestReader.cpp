#include "agent/http/HttpRequestReader.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORAscii.h"

namespace QOR {
namespace {

constexpr unsigned payloadTooLarge = 413;
constexpr unsigned headTooLarge = 431;
constexpr unsigned notImplemented = 501;
/// Hexadecimal digits of a chunk's size; more would not fit into 64 bits.
constexpr std::size_t chunkDigits = 16;
/// Decimal digits of a Content-Length; all numbers of so many fit into 64 bits.
constexpr std::size_t lengthDigits = 19;

constexpr bool isTokenCharacter(char c) {
    return isDigitChar(c) || isAlphaChar(c) || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

constexpr bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

/// Bytes that a field's value may hold: no control characters but the tab.
constexpr bool isValueCharacter(char c) {
    return c == '\t' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
}

constexpr bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

/// The value of a hexadecimal digit, 16 for anything else.
constexpr unsigned hexValue(char c) {
    if (isDigitChar(c)) return static_cast<unsigned>(c - '0');
    const char lower = toLowerChar(c);
    return lower >= 'a' && lower <= 'f' ? static_cast<unsigned>(lower - 'a' + 10) : 16U;
}

/// Takes a token off the beginning. \returns false when there is none
bool takeToken(std::string_view& rest) {
    const auto end = std::find_if_not(rest.begin(), rest.end(), isTokenCharacter);
    const auto size = static_cast<std::size_t>(end - rest.begin());
    rest.remove_prefix(size);
    return size > 0;
}

/// Takes a text in double quotes off the beginning. \returns false when it does not end or holds what it may not
bool takeQuoted(std::string_view& rest) {
    for (std::size_t at = 1; at < rest.size(); ++at) {
        if (rest[at] == '"') {
            rest.remove_prefix(at + 1);
            return true;
        }
        if (rest[at] == '\\') ++at;
        if (at >= rest.size() || !isValueCharacter(rest[at])) return false;
    }
    return false;
}

void skipBlanks(std::string_view& rest) {
    while (!rest.empty() && isBlank(rest.front()))
        rest.remove_prefix(1);
}

/// True for what may follow a chunk's size: `;name`, `;name=token` and `;name="text"`, any number of them.
bool areChunkExtensions(std::string_view rest) {
    while (!rest.empty()) {
        skipBlanks(rest);
        if (rest.empty() || rest.front() != ';') return false;
        rest.remove_prefix(1);
        skipBlanks(rest);
        if (!takeToken(rest)) return false;
        std::string_view behind = rest;
        skipBlanks(behind);
        if (behind.empty() || behind.front() != '=') continue;
        rest = behind.substr(1);
        skipBlanks(rest);
        if (!rest.empty() && rest.front() == '"' ? !takeQuoted(rest) : !takeToken(rest)) return false;
    }
    return true;
}

}  // namespace

std::string_view HttpRequest::field(std::string_view name) const noexcept {
    for (const HttpField& field : fields)
        if (isSameWord(field.name, name)) return field.value;
    return {};
}

void HttpRequestReader::fail(unsigned status, std::string message) {
    m_state = State::Failed;
    m_failure = {status, std::move(message)};
}

std::size_t HttpRequestReader::take(std::string_view bytes) {
    switch (m_state) {
        case State::Head:
            return takeHead(bytes);
        case State::Body:
            return m_chunked ? takeChunked(bytes) : takeBody(bytes);
        default:
            return 0;
    }
}

// ---- the head ---------------------------------------------------------------------------------------------------

std::size_t HttpRequestReader::takeHead(std::string_view bytes) {
    std::size_t taken = 0;
    while (m_state == State::Head && taken < bytes.size()) {
        const std::size_t feed = bytes.find('\n', taken);
        const std::size_t size = (feed == std::string_view::npos ? bytes.size() : feed + 1) - taken;
        if (m_head.size() + size > m_headLimit) {
            fail(headTooLarge, "the headers are larger than " + std::to_string(m_headLimit) + " bytes");
            return taken;
        }
        m_head.append(bytes.substr(taken, size));
        taken += size;
        if (feed == std::string_view::npos) break;
        const std::size_t end = m_head.size() - 1;
        if (end == m_lineBegin || m_head[end - 1] != '\r') {
            failSyntax("a line does not end in CR LF");
        } else {
            readHeadLine(m_lineBegin, end - 1);
        }
        m_lineBegin = m_head.size();
    }
    return taken;
}

void HttpRequestReader::readHeadLine(std::size_t begin, std::size_t end) {
    if (!m_hasRequestLine) {
        m_hasRequestLine = true;
        readRequestLine(std::string_view(m_head).substr(begin, end - begin));
    } else if (begin == end) {
        finishHead();
    } else {
        readField(begin, end);
    }
}

void HttpRequestReader::readRequestLine(std::string_view line) {
    const std::size_t first = line.find(' ');
    const std::size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
    if (second == std::string_view::npos) return failSyntax("the first line is not a method, a target and a version");
    const std::string_view target = line.substr(first + 1, second - first - 1);
    const std::string_view version = line.substr(second + 1);
    if (!isToken(line.substr(0, first))) return failSyntax("bad method");
    if (target.empty() || !std::all_of(target.begin(), target.end(), [](char c) { return c > 0x20 && c < 0x7F; }))
        return failSyntax("bad target");
    if (version != "HTTP/1.1" && version != "HTTP/1.0") return failSyntax("bad version");
    m_version = version.back() == '1' ? 11 : 10;
    m_keepAlive = m_version == 11;
    m_methodPiece = {0, first};
    m_targetPiece = {first + 1, target.size()};
}

void HttpRequestReader::readField(std::size_t begin, std::size_t end) {
    const std::string_view line = std::string_view(m_head).substr(begin, end - begin);
    if (isBlank(line.front())) return failSyntax("a folded line");
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return failSyntax("a field without a colon");
    if (!isToken(line.substr(0, colon))) return failSyntax("bad field name");
    if (!std::all_of(line.begin(), line.end(), isValueCharacter)) return failSyntax("bad field value");
    const std::string_view value = trim(line.substr(colon + 1));
    const std::size_t valueAt = value.empty() ? end : static_cast<std::size_t>(value.data() - m_head.data());
    m_pieces.push_back({{begin, colon}, {valueAt, value.size()}});
}

void HttpRequestReader::finishHead() {
    m_method = viewOf(m_methodPiece);
    m_target = viewOf(m_targetPiece);
    m_fields.reserve(m_pieces.size());
    for (const FieldPieces& piece : m_pieces)
        m_fields.push_back({viewOf(piece.name), viewOf(piece.value)});
    m_state = State::HeadDone;
    readBodyFields();
}

/// What decides how long the request is, and whether another may follow it.
void HttpRequestReader::readBodyFields() {
    const HttpField* length = nullptr;
    const HttpField* encoding = nullptr;
    bool hasHost = false;
    for (const HttpField& field : m_fields) {
        const bool isLength = isSameWord(field.name, "content-length");
        const bool isEncoding = isSameWord(field.name, "transfer-encoding");
        const bool isHost = isSameWord(field.name, "host");
        if ((isLength && length != nullptr) || (isEncoding && encoding != nullptr) || (isHost && hasHost))
            return failSyntax("a field that may be given once is given twice");
        if (isLength) length = &field;
        if (isEncoding) encoding = &field;
        hasHost = hasHost || isHost;
        if (isSameWord(field.name, "connection")) readConnection(field.value);
    }
    if (length != nullptr && encoding != nullptr)
        return failSyntax("both a Content-Length and a Transfer-Encoding are given");
    if (length != nullptr) return readContentLength(length->value);
    if (encoding == nullptr) return;
    if (m_version == 10) return failSyntax("a Transfer-Encoding in HTTP/1.0");
    if (!isSameWord(encoding->value, "chunked"))
        return fail(notImplemented, "the only Transfer-Encoding that is understood is \"chunked\"");
    m_chunked = true;
}

std::string HttpRequestReader::tooLargeBody(std::size_t limit) {
    return "the body is larger than " + std::to_string(limit) + " bytes";
}

void HttpRequestReader::readContentLength(std::string_view value) {
    if (value.empty() || value.size() > lengthDigits || !std::all_of(value.begin(), value.end(), isDigitChar))
        return failSyntax("bad Content-Length");
    for (const char c : value)
        m_length = m_length * 10 + static_cast<unsigned>(c - '0');
    if (m_length > m_bodyLimit) fail(payloadTooLarge, tooLargeBody(m_bodyLimit));
}

void HttpRequestReader::readConnection(std::string_view value) {
    while (!value.empty()) {
        const std::size_t comma = value.find(',');
        const std::string_view option = trim(value.substr(0, comma));
        value = comma == std::string_view::npos ? std::string_view() : value.substr(comma + 1);
        m_close = m_close || isSameWord(option, "close");
        m_keepAlive = m_keepAlive || isSameWord(option, "keep-alive");
    }
}

std::optional<std::uint64_t> HttpRequestReader::bodyLength() const noexcept {
    if (m_chunked) return std::nullopt;
    return m_length;
}

// ---- the body ---------------------------------------------------------------------------------------------------

void HttpRequestReader::beginBody() {
    if (m_state != State::HeadDone) return;
    m_state = m_chunked || m_length > 0 ? State::Body : State::Done;
}

std::size_t HttpRequestReader::takeBody(std::string_view bytes) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(m_length, bytes.size()));
    m_body.append(bytes.substr(0, size));
    m_length -= size;
    if (m_length == 0) m_state = State::Done;
    return size;
}

std::size_t HttpRequestReader::takeChunked(std::string_view bytes) {
    std::size_t taken = 0;
    while (m_state == State::Body && taken < bytes.size()) {
        const std::string_view rest = bytes.substr(taken);
        if (m_chunk == Chunk::Data) {
            const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(m_length, rest.size()));
            m_body.append(rest.substr(0, size));
            m_length -= size;
            taken += size;
            if (m_length == 0) m_chunk = Chunk::DataEnd;
        } else {
            taken += m_chunk == Chunk::DataEnd ? takeChunkEnd(rest) : takeChunkLine(rest);
        }
    }
    return taken;
}

/// The CR LF behind a chunk's bytes.
std::size_t HttpRequestReader::takeChunkEnd(std::string_view bytes) {
    m_line += bytes.front();
    if (m_line == "\r\n") {
        m_line.clear();
        m_chunk = Chunk::Size;
    } else if (m_line != "\r") {
        failSyntax("bad end of a chunk");
    }
    return 1;
}

/// A chunk's size with its extensions, or a line behind the last chunk.
std::size_t HttpRequestReader::takeChunkLine(std::string_view bytes) {
    const std::size_t feed = bytes.find('\n');
    const std::size_t size = feed == std::string_view::npos ? bytes.size() : feed + 1;
    if (m_line.size() + m_framing + size > m_headLimit) {
        failSyntax("too much between the chunks");
        return size;
    }
    m_line.append(bytes.substr(0, size));
    if (feed == std::string_view::npos) return size;
    if (m_line.size() < 2 || m_line[m_line.size() - 2] != '\r') {
        failSyntax("a line does not end in CR LF");
        return size;
    }
    const std::string line = std::exchange(m_line, {});
    readChunkLine(std::string_view(line).substr(0, line.size() - 2));
    return size;
}

void HttpRequestReader::readChunkLine(std::string_view line) {
    if (m_chunk == Chunk::Size) return readChunkSize(line);
    if (line.empty()) {
        m_state = State::Done;
        return;
    }
    // Trailers are read past, and may not say what the head has to say.
    m_framing += line.size();
    const std::string_view name = line.substr(0, line.find(':'));
    if (name.size() == line.size() || !isToken(name) || !std::all_of(line.begin(), line.end(), isValueCharacter) ||
        isSameWord(name, "content-length") || isSameWord(name, "transfer-encoding"))
        failSyntax("bad field behind the last chunk");
}

void HttpRequestReader::readChunkSize(std::string_view line) {
    std::size_t digits = 0;
    while (digits < line.size() && hexValue(line[digits]) < 16)
        ++digits;
    const std::string_view extensions = line.substr(digits);
    if (digits == 0 || digits > chunkDigits || !areChunkExtensions(extensions)) return failSyntax("bad chunk");
    m_length = 0;
    for (const char c : line.substr(0, digits))
        m_length = m_length * 16 + hexValue(c);
    m_framing += extensions.size();
    if (m_length > m_bodyLimit - m_body.size()) return fail(payloadTooLarge, tooLargeBody(m_bodyLimit));
    m_chunk = m_length == 0 ? Chunk::Trailer : Chunk::Data;
}

}  // namespace QOR
