/// \file
/// The engines that this layer knows.
#pragma once

namespace QOR {

/// Which engine answers, as the dialect table knows it.
enum class ASEngine { SQLite, PostgreSQL };

}  // namespace QOR
