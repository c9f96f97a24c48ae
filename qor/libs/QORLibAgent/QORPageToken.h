/// \file
/// Page tokens: where a page of rows ended, for whoever asks for the next one. Encrypted and signed, so that it tells
/// him nothing, not even what happened to rows that he may not see, and is what it was when it comes back. A token
/// gives no right.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORBinaryIterator.h"

namespace QOR {

/// Where a page ended, and what was asked. A value.
struct QORPageToken {
    std::string question;                         ///< digest of what was asked, as questionDigest() makes it
    std::int64_t now = 0;                         ///< seconds since the epoch at the first page: what relative times
                                                  ///< are relative to
    std::uint64_t change = 0;                     ///< the database's number of changes at the first page
    std::int64_t offset = -1;                     ///< rows before the place, which is all that tells it where there is
                                                  ///< no key; -1: not known
    std::vector<std::optional<std::string>> key;  ///< values of the sort keys of the last row, in their order; null:
                                                  ///< none. Any bytes
    std::int64_t records = -1;                    ///< how many records there were at the first page that the asker may
                                                  ///< see; -1: not known

    bool operator==(const QORPageToken&) const = default;
};

/// Who makes tokens puts no more bytes than this into a key, so that one has room in the first line of a request.
inline constexpr std::size_t mostPageKeyBytes = 2048;

/// Text in the alphabet of base64url, without padding, sealed with the key that all agents on the database share.
/// Any thread. \throws QORException errFailure; AException as preparePageTokens()
QOR_API std::string sealPageToken(const QORPageToken& token);
/// Any thread. \throws QORException 400 "the page token is not one of this database's" for a text that none of the
/// database's agents has sealed as it stands; AException as preparePageTokens()
QOR_API QORPageToken openPageToken(std::string_view text);
/// Reads the key, where this process has not read it yet from the database that it serves. Sealing and opening do so
/// too; who has a transaction of his own open does it before, so as not to wait for a second connection. A database
/// that keeps no key, as another program's or one of an older version that is only read, has one of this process.
/// \throws AException when the database cannot be read
QOR_API void preparePageTokens();

/// A key of the same making for something else that all agents on the database shall know again. Any thread.
/// \param purpose tells it from others \throws AException as preparePageTokens()
QOR_API std::string sharedSecretFor(std::string_view purpose);

/// A text that tells the database from others, for whoever keeps something of it and comes again; no secret. As long as
/// the database is there, also when it is brought back to an earlier state; another one in what was copied out of it by
/// `qorctl copy`. Empty where the process cannot read the key. Any thread. \throws AException as preparePageTokens()
QOR_API std::string databaseMark();

/// A text that stands for the question that a select element asks: all of it, but for how many rows are wanted, from
/// where on, how they are counted and when that was, which may differ from page to page. \param select stands on the
/// select element
QOR_API std::string questionDigest(const QORBinaryIterator& select);

}  // namespace QOR
