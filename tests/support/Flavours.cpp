#include <Flavours.hpp>

#include <kivra/meta/AbstractMetaPackage.hpp>
#include <kivra/meta/Package.hpp>

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/LibraryPackage.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

namespace kivra::test {

namespace {

// The tables of the generated library, entered through the metamodel's builders with no
// builder or proxy factory of their own: the classes make reflective elements.
class RuntimeLibraryPackage : public meta::AbstractMetaPackage {
public:
    RuntimeLibraryPackage() {
        begin();
        meta::Package const package = createPackage(u"rlibrary", meta::MetaRegistry::composeUri(u"1", u"rlibrary"));
        auto makeClass = [&](char16_t const *name, meta::Class const &superclass) {
            meta::Class cls = createClass(name, "", false, nullptr);
            cls->setOwningPackage(package);
            cls->setSuperclass(superclass);
            return cls;
        };
        flavour.name = "runtime";
        flavour.shelf = makeClass(u"Shelf", ModelElement::metaClass());
        flavour.book = makeClass(u"Book", ModelElement::metaClass());
        flavour.novel = makeClass(u"Novel", flavour.book);
        flavour.author = makeClass(u"Author", ModelElement::metaClass());
        meta::Class const &shelf = flavour.shelf, &book = flavour.book, &author = flavour.author;
        auto add = [&](meta::Class const &owner, int index, char16_t const *name, meta::Type const &type,
                       ValueFlags shape, bool composite = false) {
            meta::Property p = createProperty(name, shape, composite, nullptr);
            setPropertyIndex(p, index);
            p->setOwningType(owner);
            p->setType(type);
            return p;
        };
        auto type = [&](char16_t const *name) { return registry().getType(name); };
        using F = ValueFlags;
        add(shelf, 1, u"label", type(u"String"), F::Single);
        meta::Property const featured = add(shelf, 2, u"featured", book, F::Single, true);
        add(shelf, 3, u"books", book, F::Sequence, true);
        add(shelf, 4, u"recommended", book, F::HashSet);
        meta::Property const catalogue = add(shelf, 5, u"catalogue", book, F::Map);
        add(shelf, 6, u"code", type(u"StdString"), F::Single)->setIsReadOnly(true);
        add(shelf, 9, u"labels", type(u"StringToStringMap"), F::Single);
        // Beyond the generated classes, whose generator makes no single data type field:
        // the generated data type, since one of the registry's own model has no records.
        add(shelf, 12, u"edition", library::LibraryPackage::getInstance().elements().d_Edition, F::Single);
        meta::Property const title = add(book, 1, u"title", type(u"String"), F::Single);
        add(book, 2, u"subtitle", type(u"String"), F::Optional);
        meta::Property const bookShelf = add(book, 3, u"shelf", shelf, F::Single);
        meta::Property const bookAuthor = add(book, 4, u"author", author, F::Single);
        meta::Property const pages = add(book, 5, u"pages", type(u"Integer"), F::Single);
        pages->setDefaultValue(basalt::ustring(u"100"));
        add(book, 6, u"sequel", book, F::Single);
        meta::Property const writer = add(book, 7, u"writer", author, F::Single);
        meta::Property const isbn = add(book, 8, u"isbn", type(u"StdString"), F::Optional);
        isbn->setIsPublicAccessor(false);
        isbn->setIsPublicMutator(false);
        meta::Property const appendix = add(book, 9, u"appendix", book, F::Single, true);
        meta::Property const appendixOf = add(book, 10, u"appendixOf", book, F::Single);
        meta::Property const chapters = add(book, 11, u"chapters", book, F::Sequence, true);
        meta::Property const chapterOf = add(book, 12, u"chapterOf", book, F::Single);
        meta::Property const coauthors = add(book, 13, u"coauthors", author, F::Sequence);
        meta::Property const catalogued = add(book, 14, u"catalogued", shelf, F::Single);
        add(flavour.novel, 15, u"genre", type(u"String"), F::Optional);
        add(author, 1, u"name", type(u"String"), F::Single);
        meta::Property const favourite = add(author, 2, u"favourite", book, F::Single);
        meta::Property const books = add(author, 3, u"books", book, F::Sequence);
        meta::Property const coauthored = add(author, 4, u"coauthored", book, F::HashSet);
        add(author, 5, u"drafts", book, F::HashMultimap, true)->setQualifiedBy(pages);
        auto pair = [](meta::Property const &a, meta::Property const &b) {
            a->setOpposite(b);
            b->setOpposite(a);
        };
        pair(featured, bookShelf);
        pair(catalogue, catalogued);
        catalogue->setQualifiedBy(title);
        pair(bookAuthor, favourite);
        pair(writer, books);
        pair(appendix, appendixOf);
        pair(chapters, chapterOf);
        pair(coauthors, coauthored);
        for (meta::Class const *cls : {&flavour.shelf, &flavour.book, &flavour.novel, &flavour.author})
            registry().registerType(*cls);
        finish();
    }

    Flavour flavour;
};

} // namespace

Flavour const &generatedLibrary() {
    static Flavour const flavour{"generated", library::Shelf::metaClass(), library::Book::metaClass(),
                                 library::Novel::metaClass(), library::Author::metaClass()};
    return flavour;
}

Flavour const &runtimeLibrary() {
    static RuntimeLibraryPackage const *const package = new RuntimeLibraryPackage();
    return package->flavour;
}

} // namespace kivra::test
