#pragma once
/// \file
/// File-name forms of paths given as UTF-16 text.
///
/// Both "/" and "\\" separate names in the paths this layer is given, whatever the
/// operating system. The generic form uses "/"; the native form is what the operating
/// system uses ("/" on POSIX systems, "\\" on Windows).

#include <basalt/ustring.hpp>

#include <stdexcept>

namespace basalt::filesystem {

/// Raised by `create_directories` when the directory already exists.
class FileExistsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace detail {
/// The path with native separators; with `normalize`, also without "." names,
/// resolved ".." names where a name precedes them, and without repeated separators.
/// Normalizing keeps a trailing separator ("a/b/." gives "a/b/"), drops ".." right
/// after the root ("/../a" gives "/a"), gives "." for a relative path that resolves to
/// nothing ("a/.." gives "."), and keeps a leading drive such as "c:" in front as it is
/// ("c:/a/../b" gives "c:/b", "c:a/.." gives "c:").
ustring make_native_form(ustring const &path, bool normalize);
/// The path with "/" separators.
ustring make_generic_form(ustring const &path);
/// The path without its last name: everything up to and including the last separator
/// of either kind, as written ("a/b/c.txt" gives "a/b/", "a\\b" gives "a\\", "c.txt"
/// gives "").
ustring remove_filename(ustring const &path);
} // namespace detail

/// Creates the directory and every missing parent. An empty path does nothing.
/// Raises `FileExistsError` when the directory already exists, and
/// `std::filesystem::filesystem_error` for any other failure (a file in the way,
/// missing rights).
void create_directories(ustring const &path);

} // namespace basalt::filesystem
