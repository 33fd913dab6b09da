// Queries run over the generated library and over its twin described at run time: every
// expectation below holds for both, so the two give the same rows.

#include "query/NativeKivraQuery.hpp"

#include <Flavours.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/services/ElementIdResolver.hpp>

#include <library/Author.hpp>
#include <library/Book.hpp>

#include <kivra/ElementSequence.hpp>
#include <kivra/PrimitiveCollection.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace kivra::query {
namespace {

using namespace kivra::test;
using R = ValueMatchRelation;
using Mode = SearchClassMatchMode;
using Rows = std::vector<std::string>;

class QueryEngine : public ::testing::TestWithParam<Flavour const *> {
protected:
    Flavour const &lib() const { return *GetParam(); }
    meta::Property p(meta::Class const &cls, std::u16string_view name) const {
        return cls->getPropertyByName(basalt::ustring(name));
    }
    ModelElement make(meta::Class const &cls, std::u16string_view label, std::int32_t pages = 100,
                      Model const *in = nullptr) {
        ModelElement made = cls->instantiate(in ? *in : model);
        if (cls == lib().author) {
            set(made, u"name", text(label));
        } else {
            set(made, u"title", text(label));
            set(made, u"pages", Value(pages));
        }
        return made;
    }

    /// Ann writes Dune and Ulysses, Bob writes Emma and the novel Rebecca; Cid writes
    /// nothing. Notes is a chapter of Dune, the only element that is not top level.
    void stock() {
        ann = make(lib().author, u"Ann");
        bob = make(lib().author, u"Bob");
        cid = make(lib().author, u"Cid");
        dune = make(lib().book, u"Dune", 600);
        emma = make(lib().book, u"Emma", 300);
        ulysses = make(lib().book, u"Ulysses", 700);
        rebecca = make(lib().novel, u"Rebecca", 450);
        notes = make(lib().book, u"Notes", 100);
        for (auto const &[b, a] : {std::pair{dune, ann}, {ulysses, ann}, {emma, bob}, {rebecca, bob}})
            set(b, u"writer", ref(a));
        many(dune, u"chapters").genericAdd(notes);
        many(dune, u"coauthors").genericAdd(bob);
        many(dune, u"coauthors").genericAdd(cid);
        many(emma, u"coauthors").genericAdd(cid);
        set(dune, u"subtitle", text(u"Dune"));
        set(emma, u"subtitle", text(u"Other"));
        set(rebecca, u"genre", text(u"Gothic"));
    }

    std::unique_ptr<ReflectiveQuery> query() const { return createNativeQuery(model); }
    std::size_t books(ReflectiveQuery &q, Mode mode = Mode::ClassOrSubclass) const {
        return q.addSearchClass(lib().book, mode);
    }

    std::string label(ModelElement const &e) const {
        if (!e)
            return "-";
        return basalt::i18n::ustring_to_utf8(
            get(e, e->getMetaClass() == lib().author ? u"name" : u"title").get<basalt::ustring>());
    }
    /// Each row as its elements' labels joined by "+", in the order the query gives.
    Rows rows(ReflectiveQuery &q, std::vector<std::size_t> const &columns = {}) const {
        Rows out;
        std::vector<ModelElement> row;
        for (auto it = q.execute(columns); it->next(row);) {
            std::string line;
            for (ModelElement const &e : row)
                line += (line.empty() ? "" : "+") + label(e);
            out.push_back(line);
        }
        return out;
    }
    Rows sorted(ReflectiveQuery &q) const {
        Rows out = rows(q);
        std::sort(out.begin(), out.end());
        return out;
    }

    Model model = Model::createTransientModel();
    ModelElement ann, bob, cid, dune, emma, ulysses, rebecca, notes;
};

// Plain relations on titles, pages and names, the class modes and finished groups are left
// to the random queries; here the kinds of value they do not reach.
TEST_P(QueryEngine, SingleObjectConstraintsNarrowAnInstance) {
    stock();
    auto const run = [&](auto constrain, Mode mode = Mode::ClassOrSubclass) {
        auto q = query();
        constrain(*q, books(*q, mode));
        return sorted(*q);
    };
    Value const ref_ann = ref(ann);
    EXPECT_EQ(run([](auto &, auto) {}), (Rows{"Dune", "Emma", "Notes", "Rebecca", "Ulysses"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.addPropertyRelationValue(p(lib().book, u"pages"), R::greater, Value(450), b); }),
              (Rows{"Dune", "Ulysses"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.addPropertyRelationValue(p(lib().book, u"title"), R::like, text(u"%e%"), b); }),
              (Rows{"Dune", "Notes", "Rebecca", "Ulysses"}));
    // An unset optional stands below every value and equals only another unset one.
    EXPECT_EQ(run([&](auto &q, auto b) { q.addPropertyRelationValue(p(lib().book, u"subtitle"), R::notEqual, text(u"Dune"), b); }),
              (Rows{"Emma", "Notes", "Rebecca", "Ulysses"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.addPropertyRelationValue(p(lib().book, u"writer"), R::equal, ref_ann, b); }),
              (Rows{"Dune", "Ulysses"}));
    // A collection passes when some entry does; an empty one passes nothing, notEqual included.
    EXPECT_EQ(run([&](auto &q, auto b) { q.addPropertyRelationValue(p(lib().book, u"coauthors"), R::equal, ref(cid), b); }),
              (Rows{"Dune", "Emma"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.addPropertyRelationValue(p(lib().book, u"coauthors"), R::notEqual, ref(cid), b); }),
              (Rows{"Dune"}));
    EXPECT_EQ(run([&](auto &q, auto b) {
                  q.addPropertyRelationProperty(p(lib().book, u"subtitle"), b, R::equal, p(lib().book, u"title"), b);
              }),
              (Rows{"Dune"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.requireTopLevelElement(b); }), (Rows{"Dune", "Emma", "Rebecca", "Ulysses"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.setSpecificElement(rebecca, b); }), (Rows{"Rebecca"}));
    EXPECT_EQ(run([&](auto &q, auto b) { q.setSpecificElement(rebecca, b); }, Mode::ExactClass), (Rows{}));
    // A group that is never finished takes no part.
    EXPECT_EQ(run([&](auto &q, auto b) {
                  q.createDisjunction()->addPropertyRelationValue(p(lib().book, u"pages"), R::less, Value(200), b);
              }).size(),
              5u);
}

// Joins of the sequences and sets and pairs of them are left to the random queries; here what
// they do not reach: three instances with columns picked, a required read of nothing, a map.
TEST_P(QueryEngine, JoinsRelateInstances) {
    stock();
    {
        // Three instances: two books of one writer, the pair ordered by title.
        auto q = query();
        std::size_t const x = books(*q), y = books(*q), a = q->addSearchClass(lib().author, Mode::ExactClass);
        q->addAssociatedObject(p(lib().book, u"writer"), x, a);
        q->addAssociatedObject(p(lib().book, u"writer"), y, a);
        q->addPropertyRelationProperty(p(lib().book, u"title"), x, R::less, p(lib().book, u"title"), y);
        EXPECT_EQ(sorted(*q), (Rows{"Dune+Ulysses+Ann", "Emma+Rebecca+Bob"}));
        Rows picked = rows(*q, {a, a, x});
        std::sort(picked.begin(), picked.end());
        EXPECT_EQ(picked, (Rows{"Ann+Ann+Dune", "Bob+Bob+Emma"}));
    }
    {
        // The title is required, so the equality reads both sides as set values: an unset
        // subtitle fails the run, also where no title could equal it.
        auto r = query();
        std::size_t const t = books(*r), s = books(*r);
        r->setSpecificElement(dune, t);
        r->addPropertyRelationProperty(p(lib().book, u"title"), t, R::equal, p(lib().book, u"subtitle"), s);
        EXPECT_THROW(r->countResults(), Error<messages::InvalidValue>);
    }
    {
        // A map holds its entries under their keys: a join through it meets every one.
        ModelElement const shelf = lib().shelf->instantiate(model);
        many(shelf, u"catalogue").genericAdd(dune);
        many(shelf, u"catalogue").genericAdd(emma);
        auto q = query();
        std::size_t const s = q->addSearchClass(lib().shelf, Mode::ExactClass), b = books(*q);
        q->addAssociatedObject(p(lib().shelf, u"catalogue"), s, b);
        EXPECT_EQ(q->countResults(), 2u);
    }
}

TEST_P(QueryEngine, WhatCannotMatchIsNotVisited) {
    stock();
    make(lib().book, u"Twin", 300);
    auto q = query();
    std::size_t const b = books(*q), a = q->addSearchClass(lib().author, Mode::ExactClass);
    q->addAssociatedObject(p(lib().book, u"writer"), b, a);
    auto &native = static_cast<NativeKivraQuery &>(*q);
    NativeKivraQuery::RunCounts counts;
    EXPECT_EQ(native.evaluate(&counts).rowCount(), 4u);
    // Each element meets only the instance of its class, each book only its own writer.
    EXPECT_EQ(counts.scanned, 9u);
    EXPECT_EQ(counts.tested, 9u);
    EXPECT_EQ(counts.combined, 4u);
    native.plainEvaluation = true;
    counts = {};
    EXPECT_EQ(native.evaluate(&counts).rowCount(), 4u);
    EXPECT_EQ(counts.tested, 18u);
    EXPECT_EQ(counts.combined, 18u);

    // Equal pages: only books of one page count meet.
    auto e = query();
    std::size_t const x = books(*e), y = books(*e);
    e->addPropertyRelationProperty(p(lib().book, u"pages"), x, R::equal, p(lib().book, u"pages"), y);
    e->addPropertyRelationProperty(p(lib().book, u"title"), x, R::notEqual, p(lib().book, u"title"), y);
    counts = {};
    EXPECT_EQ(static_cast<NativeKivraQuery &>(*e).evaluate(&counts).rowCount(), 2u);
    EXPECT_EQ(counts.combined, 8u);
    EXPECT_EQ(sorted(*e), (Rows{"Emma+Twin", "Twin+Emma"}));
}

TEST_P(QueryEngine, InstancesWithoutJoinGiveTheCrossProductInScanOrder) {
    stock();
    auto q = query();
    std::size_t const b = books(*q);
    q->addSearchClass(lib().author, Mode::ExactClass);
    q->addPropertyRelationValue(p(lib().book, u"pages"), R::greater, Value(500), b);
    EXPECT_EQ(q->countResults(), 6u);
    Rows const all = rows(*q);
    auto alone = query();
    std::size_t const lb = books(*alone);
    alone->addPropertyRelationValue(p(lib().book, u"pages"), R::greater, Value(500), lb);
    Rows const bs = rows(*alone);
    alone->clear();
    alone->addSearchClass(lib().author, Mode::ExactClass);
    Rows const as = rows(*alone);
    // The first instance runs fastest.
    EXPECT_EQ(all[0], bs[0] + "+" + as[0]);
    EXPECT_EQ(all[1], bs[1] + "+" + as[0]);
    EXPECT_EQ(all[2], bs[0] + "+" + as[1]);
    EXPECT_EQ(all[5], bs[1] + "+" + as[2]);
    q->setResultLimit(1);
    std::vector<ModelElement> const first = q->getFirstResult();
    EXPECT_EQ(label(first[0]) + "+" + label(first[1]), all[0]);
}

TEST_P(QueryEngine, SortOffsetAndLimitComeLastInThatOrder) {
    stock();
    auto q = query();
    std::size_t const b = books(*q);
    q->sortByProperty(p(lib().book, u"pages"), b, SortDirection::Descending);
    EXPECT_EQ(rows(*q), (Rows{"Ulysses", "Dune", "Rebecca", "Emma", "Notes"}));
    q->setResultOffset(1);
    q->setResultLimit(2);
    EXPECT_EQ(rows(*q), (Rows{"Dune", "Rebecca"}));
    q->sortByProperty(p(lib().book, u"title"), b, SortDirection::Ascending);
    EXPECT_EQ(rows(*q), (Rows{"Emma", "Notes"}));
    q->setResultOffset(4);
    EXPECT_EQ(rows(*q), (Rows{"Ulysses"}));
    EXPECT_EQ(q->countResults(), 1u);

    // Past the end: no row, and the row handed in comes back as wide as a row, empty.
    q->setResultOffset(5);
    std::vector<ModelElement> row{dune};
    auto it = q->execute({b, b, b});
    EXPECT_FALSE(it->next(row));
    EXPECT_EQ(row, std::vector<ModelElement>(3));

    // Rows without an element in the sort's column come first ascending: the optional
    // subtitle, unset on most books.
    q->setResultOffset(0);
    q->setResultLimit(0);
    q->sortByProperty(p(lib().book, u"subtitle"), b, SortDirection::Ascending);
    EXPECT_EQ(rows(*q).back(), "Emma");
    q->sortIntrinsic(b, SortDirection::Ascending);
    EXPECT_THROW(q->countResults(), Error<UnsupportedSorting>);
    // A failed run leaves the query usable.
    q->sortByProperty(p(lib().book, u"pages"), b, SortDirection::Ascending);
    EXPECT_EQ(rows(*q).front(), "Notes");
}

TEST_P(QueryEngine, AnEmptyModelAndOtherModels) {
    auto q = query();
    std::size_t const b = books(*q), a = q->addSearchClass(lib().author, Mode::ExactClass);
    q->addAssociatedObject(p(lib().book, u"writer"), b, a);
    EXPECT_EQ(q->countResults(), 0u);
    EXPECT_EQ(q->getFirstResult(), std::vector<ModelElement>(2));
    EXPECT_THROW(q->execute({a, 2}), Error<NoSuchInstanceId>);

    // The same query runs on whatever model it is set to, or repeats itself into another query.
    stock();
    EXPECT_EQ(q->countResults(), 4u);
    Model const other = Model::createTransientModel();
    ModelElement const kim = make(lib().author, u"Kim", 0, &other);
    set(make(lib().book, u"Kept", 100, &other), u"writer", ref(kim));
    make(lib().book, u"Lost", 100, &other);
    auto &retargetable = static_cast<RetargetableQuery &>(*q);
    retargetable.setResultLimit(3);
    auto copy = createNativeQuery(other);
    retargetable.retarget(*copy);
    EXPECT_EQ(rows(*copy), (Rows{"Kept+Kim"}));
    retargetable.retarget(retargetable);
    EXPECT_EQ(q->countResults(), 3u);
    retargetable.setModel(other);
    EXPECT_EQ(rows(*q), (Rows{"Kept+Kim"}));
}

TEST_P(QueryEngine, AnIteratorKeepsItsRowsWhateverBecomesOfTheModel) {
    Model shortLived = Model::createTransientModel();
    ModelElement const gone = make(lib().book, u"Gone", 100, &shortLived);
    make(lib().book, u"Kept", 100, &shortLived);
    auto q = createNativeQuery(shortLived);
    books(*q);
    auto it = q->execute({});
    gone->destroy();
    make(lib().book, u"Late", 100, &shortLived);
    q.reset();
    shortLived = Model();
    std::vector<ModelElement> row;
    std::vector<ModelElement> seen;
    while (it->next(row))
        seen.push_back(row.at(0));
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_NE(std::find(seen.begin(), seen.end(), gone), seen.end());
    EXPECT_FALSE(gone);
}

// Elements made in a transaction still open wait to enter the model's table; a run finds
// them all the same, and an element destroyed before the run is not among its rows.
TEST_P(QueryEngine, ARunInAnOpenTransactionSeesWhatItMade) {
    Transaction transaction = model->beginTransaction(false);
    stock();
    auto q = query();
    std::size_t const b = books(*q);
    q->addPropertyRelationValue(p(lib().book, u"pages"), R::greater, Value(400), b);
    q->sortByProperty(p(lib().book, u"title"), b, SortDirection::Ascending);
    EXPECT_EQ(rows(*q), (Rows{"Dune", "Rebecca", "Ulysses"}));
    ulysses->destroy();
    make(lib().book, u"Anna", 900);
    EXPECT_EQ(rows(*q), (Rows{"Anna", "Dune", "Rebecca"}));
    transaction.commit();
    EXPECT_EQ(q->countResults(), 3u);
}

INSTANTIATE_TEST_SUITE_P(Flavours, QueryEngine, ::testing::Values(&generatedLibrary(), &runtimeLibrary()),
                         [](auto const &info) { return info.param->name; });

TEST(QueryEngineGenerated, CollectionsOfValuesAndProxiesOfElements) {
    using namespace kivra::test::library;
    // Proxies need a model of a constellation.
    Model const model = Model::create(ModelConstellation::create());
    Book const dune = Book::create(model), emma = Book::create(model);
    dune->getTagsMutable().push_back(basalt::ustring(u"sand"));
    dune->getTagsMutable().push_back(basalt::ustring(u"spice"));
    Author const ann = Author::create(model);
    auto q = createNativeQuery(model);
    std::size_t const b = q->addSearchClass(Book::metaClass(), Mode::ExactClass);
    q->addPropertyRelationValue(Book::Impl::tagsProperty(), R::like, text(u"sp%"), b);
    EXPECT_EQ(q->getFirstResult(), std::vector<ModelElement>{dune});
    auto none = createNativeQuery(model);
    none->addPropertyRelationValue(Book::Impl::tagsProperty(), R::notEqual, text(u"sand"),
                                   none->addSearchClass(Book::metaClass(), Mode::ExactClass));
    EXPECT_EQ(none->getFirstResult(), std::vector<ModelElement>{dune});

    // A proxy that names an element by its UUID stands for it, and stays unresolved.
    Author const proxy = Author::createProxy(
        model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(ann->getUuid())), boost::none));
    emma->getCoauthorsMutable().push_back(proxy);
    auto joined = createNativeQuery(model);
    std::size_t const book = joined->addSearchClass(Book::metaClass(), Mode::ExactClass);
    std::size_t const author = joined->addSearchClass(Author::metaClass(), Mode::ExactClass);
    joined->addAssociatedObject(Book::Impl::coauthorsProperty(), book, author);
    EXPECT_EQ(joined->getFirstResult(), (std::vector<ModelElement>{emma, ann}));
    EXPECT_TRUE(proxy->isProxy());

    // A collection of texts holds no elements to relate, whichever way the join walks.
    NativeKivraQuery tags;
    tags.setModel(model);
    tags.addAssociatedObject(Book::Impl::tagsProperty(), tags.addSearchClass(Book::metaClass(), Mode::ExactClass),
                             tags.addSearchClass(Author::metaClass(), Mode::ExactClass));
    for (bool const plain : {false, true}) {
        tags.plainEvaluation = plain;
        EXPECT_THROW(tags.countResults(), Error<messages::CannotCastIncompatibleTypes>);
    }
}

// Finds the elements that a test names by alias, as a store of another kind of ids would.
class AliasResolver final : public services::ElementIdResolver {
public:
    std::vector<std::pair<basalt::ustring, ModelElement>> named;

    ModelElement resolve(Model const &, meta::Class const &cls, io::ElementId const &id) override {
        for (auto const &[alias, element] : named)
            if (alias == id.getIdentifier() && element->getMetaClass() == cls)
                return element;
        return {};
    }
};

// Enough pairs that they are put in order by their radix sort, not by a comparison sort;
// and value elements far apart, half of them made after many books, each in many rows of
// the join's value side, which the look-up of entries among value rows must all find.
TEST(QueryEngineGenerated, ALargeJoinGivesThePlainWalksRowsInItsOrder) {
    using namespace kivra::test::library;
    Model const model = Model::createTransientModel();
    std::vector<Author> authors;
    std::vector<Book> books;
    auto const makeAuthors = [&](int count) {
        for (int a = 0; a < count; ++a) {
            authors.push_back(Author::create(model));
            authors.back()->setName(u"Ann");
        }
    };
    makeAuthors(20);
    for (int b = 0; b < 600; ++b)
        books.push_back(Book::create(model));
    makeAuthors(20);
    // Each book lists its coauthors in an order of its own, not the authors' rows: a holder's
    // pairs come out of its list in that order.
    for (int b = 0; b < 60; ++b)
        for (std::size_t i = 0; i < authors.size(); ++i)
            if (std::size_t const a = (i * 17 + static_cast<std::size_t>(b)) % authors.size();
                (a * 7 + static_cast<std::size_t>(b) * 3) % 5 != 0)
                books[static_cast<std::size_t>(b) * 10]->getCoauthorsMutable().push_back(authors[a]);
    auto const rowsOf = [](NativeKivraQuery &q, bool plain) {
        q.plainEvaluation = plain;
        ResultSet const result = q.evaluate();
        std::vector<std::vector<ModelElement>> out;
        for (std::size_t row = 0; row < result.rowCount(); ++row) {
            out.emplace_back();
            for (std::size_t column = 0; column < result.width(); ++column)
                out.back().push_back(result.at(row, column));
        }
        return out;
    };

    NativeKivraQuery q;
    q.setModel(model);
    std::size_t const holder = q.addSearchClass(Book::metaClass(), Mode::ExactClass);
    q.addAssociatedObject(Book::Impl::coauthorsProperty(), holder, q.addSearchClass(Author::metaClass(), Mode::ExactClass));
    auto const fast = rowsOf(q, false);
    EXPECT_EQ(fast.size(), 60u * 32u);
    EXPECT_EQ(fast, rowsOf(q, true));

    // The authors are paired with each other first, all sharing a name: each is a value in
    // forty rows, and the holders come second.
    NativeKivraQuery wide;
    wide.setModel(model);
    std::size_t const other = wide.addSearchClass(Author::metaClass(), Mode::ExactClass);
    std::size_t const value = wide.addSearchClass(Author::metaClass(), Mode::ExactClass);
    wide.addPropertyRelationProperty(Author::Impl::nameProperty(), other, R::equal, Author::Impl::nameProperty(), value);
    wide.addAssociatedObject(Book::Impl::coauthorsProperty(), wide.addSearchClass(Book::metaClass(), Mode::ExactClass),
                             value);
    auto const wideRows = rowsOf(wide, false);
    EXPECT_EQ(wideRows.size(), 60u * 32u * 40u);
    EXPECT_EQ(wideRows, rowsOf(wide, true));
}

TEST(QueryEngineGenerated, AJoinResolvesTheProxiesOfMadeCollectionsAsThePlainWalkDoes) {
    using namespace kivra::test::library;
    static std::shared_ptr<AliasResolver> const aliases = [] {
        auto made = std::make_shared<AliasResolver>();
        services::registerElementIdResolver(u"alias", made);
        return made;
    }();
    // Whether a join through `property`, in a fresh model where a book and an author hold
    // a proxy of each other that no UUID names and that a read resolves, gives the one
    // row of the two, holder first.
    auto const joinsThePair = [&](meta::Property const &property, bool plain) {
        Model const model = Model::create(ModelConstellation::create());
        Book const emma = Book::create(model);
        Author const ann = Author::create(model);
        emma->getCoauthorsMutable().push_back(Author::createProxy(model, ProxyId(u"alias", u"ann", boost::none)));
        ann->getCoauthoredMutable().insert(Book::createProxy(model, ProxyId(u"alias", u"emma", boost::none)));
        aliases->named = {{u"emma", emma}, {u"ann", ann}};
        bool const ofBook = property == Book::Impl::coauthorsProperty();
        NativeKivraQuery q;
        q.setModel(model);
        std::size_t const holder = q.addSearchClass(ofBook ? Book::metaClass() : Author::metaClass(), Mode::ExactClass);
        q.addAssociatedObject(property, holder,
                              q.addSearchClass(ofBook ? Author::metaClass() : Book::metaClass(), Mode::ExactClass));
        q.plainEvaluation = plain;
        ResultSet const result = q.evaluate();
        aliases->named.clear();
        std::size_t const holderColumn = result.instanceIds[0] == holder ? 0 : 1;
        return result.rowCount() == 1 && result.at(0, holderColumn) == (ofBook ? ModelElement(emma) : ModelElement(ann)) &&
               result.at(0, 1 - holderColumn) == (ofBook ? ModelElement(ann) : ModelElement(emma));
    };
    // The native join reads made collections where they lie, a sequence and a set.
    for (bool const plain : {false, true}) {
        EXPECT_TRUE(joinsThePair(Book::Impl::coauthorsProperty(), plain)) << plain;
        EXPECT_TRUE(joinsThePair(Author::Impl::coauthoredProperty(), plain)) << plain;
    }
}

// A resolver whose first answer is "not found" and whose later ones find the element, as
// one does that loads what it looks in along the way.
class SecondTimeResolver final : public services::ElementIdResolver {
public:
    ModelElement target;
    int asked = 0;
    ModelElement resolve(Model const &, meta::Class const &, io::ElementId const &) override {
        return ++asked > 1 ? target : ModelElement();
    }
};

// A holder in two rows of the input is read once: a second read resolved the proxy that the
// first had queued, and the join then read the freed proxy.
TEST(QueryEngineGenerated, AHolderInSeveralRowsIsReadOnce) {
    using namespace kivra::test::library;
    static std::shared_ptr<SecondTimeResolver> const resolver = [] {
        auto made = std::make_shared<SecondTimeResolver>();
        services::registerElementIdResolver(u"second", made);
        return made;
    }();
    Model const model = Model::create(ModelConstellation::create());
    Book const emma = Book::create(model);
    Book const dune = Book::create(model);
    // The chapter's only holder is the sequence; no far end needs to agree to its resolution.
    emma->getChaptersMutable().push_back(Book::createProxy(model, ProxyId(u"second", u"dune", boost::none)));
    resolver->target = dune;
    resolver->asked = 0;
    NativeKivraQuery q;
    q.setModel(model);
    // Both books have 100 pages: the first join gives each holder two rows.
    std::size_t const same = q.addSearchClass(Book::metaClass(), Mode::ExactClass);
    std::size_t const holder = q.addSearchClass(Book::metaClass(), Mode::ExactClass);
    q.addPropertyRelationProperty(Book::Impl::pagesProperty(), same, R::equal, Book::Impl::pagesProperty(), holder);
    q.addAssociatedObject(Book::Impl::chaptersProperty(), holder, q.addSearchClass(Book::metaClass(), Mode::ExactClass));
    EXPECT_EQ(q.countResults(), 0u);
    EXPECT_EQ(resolver->asked, 1);
    resolver->target = ModelElement();
}

} // namespace
} // namespace kivra::query
