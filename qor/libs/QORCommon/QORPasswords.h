/// \file
/// Passwords in connection strings: kept out of messages, and of what the system shows of a process.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A text for people, in which each password of a connection string ("PWD=...", "Password=...", "password=..." of an
/// option within) is "***". Where it is not sure where one ends, more is hidden than has to be.
QOR_API std::string withoutPasswords(std::string_view text);

/// Overwrites them in the arguments that the program was started with, which any user can list. Whoever needs them has
/// copied them. \param arguments those of main()
QOR_API void hidePasswords(int count, char** arguments) noexcept;

}  // namespace QOR
