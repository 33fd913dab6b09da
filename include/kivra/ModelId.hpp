#pragma once
/// \file
/// The name of a model outside the current object graph: its format, the kind of its
/// location, and the location, written as the text `format@type:location`.

#include <basalt/ustring.hpp>

namespace kivra {

/// Names a model by the format of its content, the kind of its location and the
/// location itself, such as "registry@registry://metaRegistry/model" or "memory://7".
/// The location is always held in generic form, with "/" separators. A copyable value;
/// it resolves nothing by itself.
class ModelId {
public:
    /// A model id from its three parts; `location` is stored in generic form.
    /// Raises `Error<messages::InvalidFileLocation>` with `location` when
    /// `isValidLocation(location)` is false.
    ModelId(basalt::ustring const &format, basalt::ustring const &modelIdType, basalt::ustring const &location);

    /// Reads `format@type:location`. The format is the text before the first "@" and
    /// empty when there is none; the type runs from there to the first ":" after it,
    /// and the location is the rest. Raises `Error<messages::InvalidValue>` when no
    /// ":" follows, and whatever the constructor raises for the location.
    static ModelId parse(basalt::ustring const &text);

    /// The format of the model's content; empty when the id was written without one.
    basalt::ustring const &getFormat() const noexcept { return format_; }
    /// The kind of location, such as "memory" or "registry".
    basalt::ustring const &getModelIdType() const noexcept { return modelIdType_; }
    /// The location in generic form.
    basalt::ustring const &getLocation() const noexcept { return location_; }
    /// The location in native form: `toNativeLocation(getLocation())`.
    basalt::ustring getNativeLocation() const;

    /// The text `format@type:location`; an empty format still writes the "@", so
    /// `parse(toString())` gives this id back.
    basalt::ustring toString() const;
    /// The text `type:location`, without the format.
    basalt::ustring toStringNoFormat() const;
    /// `toString()` with the native location in place of the generic one.
    basalt::ustring toOSString() const;

    /// True when `text` may be used as a location: it does not mix "/" and "\\" as
    /// separators (a backslash right before a blank escapes the blank and does not
    /// count), and, apart from one drive prefix such as "c:/" at the very start, holds
    /// none of ? * < > : | ". The empty text is valid.
    static bool isValidLocation(basalt::ustring const &text);
    /// `text` with every "\\" replaced by "/".
    static basalt::ustring toGenericLocation(basalt::ustring const &text);
    /// `text` normalised by the platform's file-name layer (no "." names, ".." resolved
    /// where possible, no repeated separators) and then written with "\\" separators,
    /// on every operating system, so that the text is the same wherever it is made.
    /// Empty for an empty text, and empty when the file-name layer fails.
    static basalt::ustring toNativeLocation(basalt::ustring const &text);

    /// True when all three parts are equal.
    bool operator==(ModelId const &other) const = default;

private:
    basalt::ustring format_;
    basalt::ustring modelIdType_;
    basalt::ustring location_;
};

} // namespace kivra
