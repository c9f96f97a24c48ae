// The least that an answer over HTTP costs: one thread, epoll, two statements prepared and bound once through the
// driver, the page's JSON put together by hand. It knows one request, trusts whoever sends it, and does nothing else
// that a server has to do; what an agent adds to its time is what being one costs.
//
//     http_floor CONNECTION
//
// GET /page/ENVIRONMENT answers the newest 20 operations of that environment and how many it has, GET /live `live`.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sql.h>
#include <sqlext.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "http_floor: %s\n", what);
    std::exit(1);
}

void require(bool holds, const char* what) {
    if (!holds) fail(what);
}

SQLCHAR* chars(std::string& text) {
    return reinterpret_cast<SQLCHAR*>(text.data());
}

/// A connection of the driver's.
class Connection {
public:
    explicit Connection(std::string string) {
        SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &m_environment);
        SQLSetEnvAttr(m_environment, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
        SQLAllocHandle(SQL_HANDLE_DBC, m_environment, &m_connection);
        require(SQL_SUCCEEDED(SQLDriverConnect(m_connection, nullptr, chars(string), SQL_NTS, nullptr, 0, nullptr,
                                               SQL_DRIVER_NOPROMPT)),
                "cannot connect to the database");
    }
    SQLHSTMT prepare(std::string sql) const {
        SQLHSTMT statement = nullptr;
        SQLAllocHandle(SQL_HANDLE_STMT, m_connection, &statement);
        require(SQL_SUCCEEDED(SQLPrepare(statement, chars(sql), SQL_NTS)), "a statement cannot be prepared");
        return statement;
    }

private:
    SQLHENV m_environment = nullptr;
    SQLHDBC m_connection = nullptr;
};

/// The answer to the one question that it knows.
class Pages {
public:
    explicit Pages(const Connection& connection)
        : m_page(connection.prepare(
              R"(SELECT "vOpLog"."time", "vOpLog"."op", "vOpLog"."status", "vOpLog"."id" FROM "vOpLog" )"
              R"(WHERE "vOpLog"."eid" = ? ORDER BY "vOpLog"."time" DESC, "vOpLog"."id" DESC LIMIT 20)")),
          m_total(connection.prepare(R"(SELECT COUNT(*) FROM "vOpLog" WHERE "vOpLog"."eid" = ?)")) {
        for (SQLHSTMT statement : {m_page, m_total})
            SQLBindParameter(statement, 1, SQL_PARAM_INPUT, SQL_C_CHAR, SQL_VARCHAR, eidLength, 0, m_eid.data(),
                             static_cast<SQLLEN>(m_eid.size()), &m_eidLength);
        bind(m_page, 1, SQL_C_CHAR, m_time.data(), m_time.size(), m_lengths[0]);
        bind(m_page, 2, SQL_C_CHAR, m_op.data(), m_op.size(), m_lengths[1]);
        bind(m_page, 3, SQL_C_SBIGINT, &m_status, sizeof m_status, m_lengths[2]);
        bind(m_page, 4, SQL_C_CHAR, m_id.data(), m_id.size(), m_lengths[3]);
        bind(m_total, 1, SQL_C_SBIGINT, &m_count, sizeof m_count, m_lengths[4]);
    }

    void write(std::string_view eid, std::string& body) {
        require(eid.size() == eidLength, "no such environment");
        eid.copy(m_eid.data(), eidLength);
        require(SQL_SUCCEEDED(SQLExecute(m_page)), "the page fails");
        body +=
            R"({"columns":[{"name":"time","type":"time"},{"name":"op","type":"text"},{"name":"status","type":"integer"},)"
            R"({"name":"id","type":"text"}],"rows":[)";
        int rows = 0;
        for (; SQL_SUCCEEDED(SQLFetch(m_page)); ++rows) {
            body += rows == 0 ? "[\"" : ",[\"";
            const std::size_t time = body.size();
            body.append(m_time.data(), dateTimeLength);
            body[time + 10] = 'T';
            body += "Z\",";
            writeText(m_op.data(), m_lengths[1], body);
            body += ',';
            writeNumber(m_status, body);
            body += ',';
            writeText(m_id.data(), m_lengths[3], body);
            body += ']';
        }
        SQLFreeStmt(m_page, SQL_CLOSE);
        require(SQL_SUCCEEDED(SQLExecute(m_total)) && SQL_SUCCEEDED(SQLFetch(m_total)), "the total fails");
        SQLFreeStmt(m_total, SQL_CLOSE);
        body += R"(],"page":{"returned":)";
        writeNumber(rows, body);
        body += R"(,"total":)";
        writeNumber(m_count, body);
        body += R"(,"exactness":"exact"}})";
    }

private:
    static constexpr std::size_t eidLength = 36;
    static constexpr std::size_t dateTimeLength = 19;

    static void bind(SQLHSTMT statement, SQLUSMALLINT column, SQLSMALLINT type, void* to, std::size_t size,
                     SQLLEN& length) {
        SQLBindCol(statement, column, type, to, static_cast<SQLLEN>(size), &length);
    }
    static void writeNumber(std::int64_t number, std::string& body) {
        std::array<char, 24> digits{};
        body.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
    }
    static void writeText(const char* text, SQLLEN length, std::string& body) {
        body += '"';
        for (SQLLEN at = 0; at < length; ++at) {
            const char c = text[at];
            if (c == '"' || c == '\\') body += '\\';
            body += c;
        }
        body += '"';
    }

    SQLHSTMT m_page;
    SQLHSTMT m_total;
    std::array<char, 37> m_eid{};
    SQLLEN m_eidLength = eidLength;
    std::array<char, 32> m_time{};
    std::array<char, 128> m_op{};
    std::array<char, 128> m_id{};
    std::int64_t m_status = 0;
    std::int64_t m_count = 0;
    std::array<SQLLEN, 5> m_lengths{};
};

class Server {
public:
    explicit Server(const std::string& connection)
        : m_connection(connection), m_pages(m_connection), m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        require(::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), size) == 0, "cannot listen");
        require(::listen(m_listener, SOMAXCONN) == 0, "cannot listen");
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size);
        watch(m_listener);
        std::printf("http_floor listening on %d\n", ntohs(address.sin_port));
        std::fflush(stdout);
    }

    [[noreturn]] void run() {
        std::array<epoll_event, 64> events{};
        for (;;) {
            const int ready = ::epoll_wait(m_epoll, events.data(), events.size(), -1);
            for (int at = 0; at < ready; ++at) {
                const int socket = events[static_cast<std::size_t>(at)].data.fd;
                if (socket == m_listener)
                    accept();
                else
                    serve(socket);
            }
        }
    }

private:
    void watch(int socket) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = socket;
        ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket, &event);
    }
    void accept() {
        const int socket = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0) return;
        const int now = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
        watch(socket);
    }
    void serve(int socket) {
        std::string& input = m_inputs[socket];
        std::array<char, 4096> bytes{};
        const ssize_t got = ::recv(socket, bytes.data(), bytes.size(), 0);
        if (got <= 0) {
            m_inputs.erase(socket);
            ::close(socket);
            return;
        }
        input.append(bytes.data(), static_cast<std::size_t>(got));
        for (std::size_t end = 0; (end = input.find("\r\n\r\n")) != std::string::npos; input.erase(0, end + 4))
            answer(socket, std::string_view(input).substr(0, input.find("\r\n")));
    }
    void answer(int socket, std::string_view line) {
        constexpr std::string_view page = "GET /page/";
        m_body.clear();
        if (line.starts_with(page))
            m_pages.write(line.substr(page.size(), line.rfind(' ') - page.size()), m_body);
        else
            m_body = "live";
        m_head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ";
        m_head.append(std::to_string(m_body.size())).append("\r\n\r\n").append(m_body);
        require(::send(socket, m_head.data(), m_head.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(m_head.size()),
                "an answer does not fit into the socket");
    }

    Connection m_connection;
    Pages m_pages;
    int m_epoll;
    int m_listener = -1;
    std::map<int, std::string> m_inputs;
    std::string m_body;
    std::string m_head;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) fail("usage: http_floor CONNECTION");
    Server(argv[1]).run();
}
