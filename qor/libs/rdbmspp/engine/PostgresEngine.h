/// \file
/// Internal: how PostgreSQL's driver is told to behave, so that what it hands on is what the engine said.
#pragma once

#include <chrono>
#include <string>

namespace QOR {

class OdbcConnectionString;

/// Adds what this layer relies on. \throws AException for a setting that says otherwise, by its name, and for one of
/// the driver's abbreviations, which say the same without being seen
void settlePostgres(OdbcConnectionString& string);

/// The connection string of connections whose rows are handed out as they come.
std::string postgresStreaming(OdbcConnectionString string);

/// What makes a session's texts, times, waiting and writing what this layer takes them for, whatever the server, the
/// role and the connection string say: only a transaction that says so writes. And what makes it
/// quick. Run before anything else. \param
/// patience with locks of others
std::string postgresScript(std::chrono::milliseconds patience);

/// What to do where a connection cannot be opened, to be put behind the reason; "" where the reason says it.
std::string postgresAdvice(const std::string& reason);

/// A select of one text: the sessions of others that hold locks which may keep somebody from writing, and wait for none
/// themselves, a few, the oldest first; null where there are none.
extern const char* const postgresLockHolders;

}  // namespace QOR
