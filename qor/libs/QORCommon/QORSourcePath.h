/// \file
/// QOR_SOURCE_PATH: which source a log line or an error comes from.
#pragma once

#include <cstddef>
#include <string_view>

namespace QOR {

/// The part of a file's name that says where in a project it lies: from the folder `qor` on, or else the name alone;
/// without the extension. Whoever compiles it, and where, is left out.
template <std::size_t size>
struct QORSourcePath {
    char text[size]{};

    // The file's name becomes a path by being named as a template's argument.
    constexpr QORSourcePath(const char (&file)[size]) {  // NOLINT(google-explicit-constructor)
        std::string_view path(file, size - 1);
        const std::size_t folder = path.rfind("/qor/");
        if (folder != std::string_view::npos) {
            path.remove_prefix(folder + 1);
        } else if (path.substr(0, 4) != "qor/") {
            path.remove_prefix(path.rfind('/') + 1);
        }
        path = path.substr(0, path.rfind('.'));
        for (std::size_t at = 0; at < path.size(); ++at)
            text[at] = path[at];
    }
};

template <QORSourcePath path>
inline constexpr const char* sourcePathText = path.text;

}  // namespace QOR

/// A text for logMessage() and QORException that lives as long as the library that it is written in.
#define QOR_SOURCE_PATH (::QOR::sourcePathText<__FILE__>)
