#include <basalt/filesystem/Path.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>

namespace basalt::filesystem {

namespace {

namespace fs = std::filesystem;

bool isSeparator(char16_t c) { return c == u'/' || c == u'\\'; }

constexpr char16_t nativeSeparator = static_cast<char16_t>(fs::path::preferred_separator);

ustring withSeparator(ustring path, char16_t separator) {
    std::replace_if(path.begin(), path.end(), isSeparator, separator);
    return path;
}

// Through char8_t so that the bytes are read as UTF-8 on every system, not in
// whatever narrow encoding the process happens to run with.
fs::path toPath(std::u16string_view text) {
    std::string const utf8 = i18n::ustring_to_utf8(text);
    return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

ustring fromPath(fs::path const &path) {
    std::u8string const utf8 = path.generic_u8string();
    return i18n::utf8_to_ustring(std::string(utf8.begin(), utf8.end()));
}

/// Length of a leading drive prefix such as "c:", or 0. Paths written on Windows keep
/// their drive on every system; elsewhere the normaliser would treat "c:" as an
/// ordinary name and could cancel it against a following "..".
std::size_t drivePrefixLength(ustring const &path) {
    if (path.size() >= 2 && path[1] == u':' &&
        ((path[0] >= u'a' && path[0] <= u'z') || (path[0] >= u'A' && path[0] <= u'Z')))
        return 2;
    return 0;
}

} // namespace

namespace detail {

ustring make_native_form(ustring const &path, bool normalize) {
    if (!normalize)
        return withSeparator(path, nativeSeparator);

    std::size_t const driveLength = drivePrefixLength(path);
    ustring const drive = path.substr(0, driveLength);
    ustring const rest = withSeparator(path.substr(driveLength), u'/');
    if (rest.empty())
        return drive;

    // The rest is in generic form, so the normaliser sees every separator as one on
    // every system; its result is read back in generic form and only then made native.
    ustring normal = fromPath(toPath(rest).lexically_normal());
    // "c:a/.." names the drive's current directory, which is "c:" itself rather than
    // "c:." with a dot that no one wrote.
    if (driveLength != 0 && normal == u".")
        normal.clear();
    return withSeparator(drive + normal, nativeSeparator);
}

ustring make_generic_form(ustring const &path) { return withSeparator(path, u'/'); }

ustring remove_filename(ustring const &path) {
    auto const last = std::find_if(path.rbegin(), path.rend(), isSeparator);
    return ustring(path.begin(), last.base());
}

} // namespace detail

void create_directories(ustring const &path) {
    if (path.empty())
        return;
    fs::path const target = toPath(detail::make_native_form(path, false));

    // Checked beforehand rather than read from create_directories' result: that
    // result is also false when a file is in the way, and (in some library versions)
    // when the path ends in a separator although the directory was made.
    std::error_code error;
    if (fs::is_directory(target, error))
        throw FileExistsError("directory already exists: " + i18n::ustring_to_utf8(path));

    fs::create_directories(target, error);
    if (error)
        throw fs::filesystem_error("cannot create directory", target, error);
}

} // namespace basalt::filesystem
