#pragma once
/// \file
/// Where a writer puts its text or bytes.

#include <basalt/ustring.hpp>

#include <iosfwd>
#include <string>
#include <vector>

namespace kivra::io {

/// The target of a write: a file, a stream, a text, bytes, or a format's own structure.
class SerializationOutput {
public:
    /// Receives the one target of an output. Each operation does nothing by default, so
    /// that a visitor overrides only the targets it supports.
    class Visitor {
    public:
        virtual ~Visitor() = default;
        virtual void visitFile(basalt::ustring const &path);
        virtual void visitStream(std::ostream &stream);
        virtual void visitString(std::string &text);
        virtual void visitUString(basalt::ustring &text);
        virtual void visitIntermediateFormat(void *target);
        virtual void visitLittleEndianByteSequence(std::vector<unsigned char> &bytes);
    };
};

} // namespace kivra::io
