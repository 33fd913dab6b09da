#pragma once
// The data type of package imports, which the tests need before kivra's own metamodel
// describes itself.

namespace kivra::test {

/// Makes sure the registry holds the data type `VersionInfo` (made here when the metamodel
/// has not made it) and that the library's `Shelf.sources` is typed by it.
void ensureVersionInfoType();

} // namespace kivra::test
