/// \file
/// Standard input and output of a program, however it was started.
#pragma once

#include "QORCommon/QORExport.h"

namespace QOR {

/// Opens those of the first three descriptors that were given closed, so that no file and no connection takes their
/// place: what is read from them or written to them fails. Called before anything else is opened.
QOR_API void holdStandardStreams() noexcept;

/// Whether everything that was written to standard output, through stdio or streams, has arrived, or nobody wants to
/// read it any more. What has not is told on standard error. At the end of a program, by its only thread.
/// \param program whose name is told
QOR_API bool endStandardOutput(const char* program) noexcept;

}  // namespace QOR
