/// \file
/// Proof by non-interference that hidden rows tell nothing: for made-up requests, what a client without full access is
/// answered, errors included, is what full access is answered by a database that holds only the rows that the client
/// may see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace QOR {

struct QORSecurityCheckOptions {
    std::size_t requests = 20'000;
    std::uint64_t seed = 1;
    std::filesystem::path plugIns;  ///< empty: those that belong to the program
    /// Called between the clients with the requests that are done.
    std::function<void(std::size_t done)> progress;
};

struct QORSecurityDifference {
    std::string request;     ///< the envelope in message notation, to be asked again
    std::string restricted;  ///< the answer that the client was given
    std::string expected;    ///< what full access was answered by the client's part of the database
};

struct QORSecurityReport {
    std::size_t requests = 0;
    std::size_t clients = 0;
    std::size_t rows = 0;  ///< in all answers that were compared
    std::vector<std::string> restrictedViews;
    std::vector<std::string> openViews;            ///< securable by nobody: everybody sees them whole
    std::map<std::string, std::size_t> operators;  ///< requests to each
    std::map<std::string, std::size_t> shapes;     ///< requests that had each
    std::map<std::string, std::size_t> errors;     ///< texts of errors that both answered, literals left out
    std::size_t unsettled = 0;  ///< could not be compared: others wrote what they ask about at each attempt
    std::size_t different = 0;
    std::vector<QORSecurityDifference> differences;  ///< the first few
};

/// Whether two answers in message notation say the same. \param ordered false: rows in any order
bool isSameAnswer(const std::string& left, const std::string& right, bool ordered);

/// Makes of the database a part for each of some clients, and asks. A file of SQLite is only read; it is copied into a
/// private folder first. A database on a server is asked where it is, and has the parts one after the other in a schema
/// of its own, "qor_check_...", which the role must be allowed to create; what differs there is asked again of a part
/// made anew, so that what others write meanwhile does not count: where they write at every attempt, a request remains
/// unsettled. The process must host nothing else: it is the whole
/// host for that time. \throws QORException when the database cannot be read or copied, or nothing in it can be asked;
/// AException
QORSecurityReport checkSecurity(const std::string& connectionString, const QORSecurityCheckOptions& options);

}  // namespace QOR
