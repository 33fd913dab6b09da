#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Extension.hpp>
#include <kivra/meta/ExtensionPrototype.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include <memory>
#include <string>
#include <vector>

namespace kivra::test::library {
namespace {

using meta::ExtensionPrototype;
using Report = std::shared_ptr<ReportData>;

Value integer(std::int32_t n) { return Value(meta::internal::getPrimitiveTypeFromMetaRegistry(u"Integer"), n); }
Value text(char16_t const *s) { return Value(meta::internal::getPrimitiveTypeFromMetaRegistry(u"String"), basalt::ustring(s)); }

ExtensionPrototype scalar(basalt::ustring name, basalt::ustring type = u"Integer") {
    return ExtensionPrototype().setName(std::move(name)).setTypeName(std::move(type));
}

AbstractPrimitiveCollection &entriesOf(Value const &view) {
    return *static_cast<AbstractPrimitiveCollection *>(const_cast<void *>(view.getPayload()));
}

template <class M, class F> void expectRaises(F const &f) {
    try {
        f();
        ADD_FAILURE() << "nothing raised";
    } catch (Error<M> const &) {
    }
}

struct LastReport : Listener {
    Report last;
    void transactionCommitted(Report const &report) { last = report; }
};

struct Heard : ExtensionListener {
    std::vector<std::string> events;
    bool removeSelfOnAdd = false;
    std::unique_ptr<Heard> removeAndDelete; // another listener, taken off and gone on an add
    void extensionAdded(Model const &model, meta::Extension const &extension) override {
        events.push_back("added " + std::string(extension->getName().begin(), extension->getName().end()));
        if (removeSelfOnAdd)
            model->removeExtensionListener(this);
        if (removeAndDelete) {
            model->removeExtensionListener(removeAndDelete.get());
            removeAndDelete.reset();
        }
    }
    void extensionRemoved(Model const &, meta::Extension const &extension) override {
        events.push_back("removed " + std::string(extension->getName().begin(), extension->getName().end()) +
                         (extension->isValid() ? "" : " (already gone)"));
    }
    void listenerRemoved() override { events.push_back("listenerRemoved"); }
};

class ExtensionTest : public ::testing::Test {
protected:
    template <class F> Report record(F const &change, bool rollBack = false) {
        observer.last.reset();
        addListener<ListenerRole::Observer>(model, observer);
        {
            Transaction transaction = model->beginRevertibleTransaction();
            change();
            if (rollBack)
                transaction.rollBack();
            else
                transaction.commit();
        }
        removeListener(model, observer);
        return observer.last;
    }

    Model model = Model::createTransientModel();
    LastReport observer;
};

TEST_F(ExtensionTest, NamesAreUniqueAlongAChainOfInheritanceOnly) {
    meta::Extension const onBook = model->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(0));
    meta::Extension const onShelf = model->extendMetaclass(Shelf::metaClass(), scalar(u"rank"), integer(0));
    EXPECT_NE(onBook, onShelf);
    EXPECT_EQ(onBook->getExtendedMetaclass(), Book::metaClass());
    EXPECT_EQ(model->getDeclaredExtension(Book::metaClass(), u"rank"), onBook);
    // The subclass sees the extension of its superclass, but did not declare it.
    EXPECT_EQ(model->getExtension(Novel::metaClass(), u"rank"), onBook);
    EXPECT_FALSE(model->getDeclaredExtension(Novel::metaClass(), u"rank"));

    // Either order of class and subclass clashes, and nothing is left behind.
    expectRaises<messages::ExtensionNameMustBeUnique>(
        [&] { model->extendMetaclass(Novel::metaClass(), scalar(u"rank"), integer(0)); });
    model->extendMetaclass(Novel::metaClass(), scalar(u"mood", u"String"), text(u"calm"));
    expectRaises<messages::ExtensionNameMustBeUnique>(
        [&] { model->extendMetaclass(Book::metaClass(), scalar(u"mood", u"String"), text(u"")); });
    EXPECT_FALSE(model->getDeclaredExtension(Book::metaClass(), u"mood"));

    // Another model has names of its own, of other types.
    Model other = Model::createTransientModel();
    meta::Extension const textRank = other->extendMetaclass(Book::metaClass(), scalar(u"rank", u"String"), text(u"-"));
    Book book = Book::create(model);
    Book foreign = Book::create(other);
    EXPECT_EQ(book->getExtension(u"rank"), integer(0));
    EXPECT_EQ(foreign->getExtension(u"rank"), text(u"-"));
}

TEST_F(ExtensionTest, BadDeclarationsChangeNothing) {
    Model elsewhere = Model::createTransientModel();
    meta::Class const local = meta::Class::create(elsewhere);
    expectRaises<messages::CannotCreateWithoutModel>(
        [&] { model->extendMetaclass(local, scalar(u"x"), integer(1)); });
    expectRaises<messages::NoSuchType>(
        [&] { model->extendMetaclass(Book::metaClass(), scalar(u"x", u"NoSuchTypeAnywhere"), integer(1)); });
    expectRaises<messages::ExtensionMustHaveName>(
        [&] { model->extendMetaclass(Book::metaClass(), scalar(u""), integer(1)); });
    expectRaises<messages::ExtensionMustHaveDefaultValue>(
        [&] { model->extendMetaclass(Book::metaClass(), scalar(u"x"), boost::none); });
    // A default of the wrong type fails after the registry has begun to change: it is
    // put back as it was.
    std::size_t const registryElements = meta::MetaRegistry::LockedConstModel(*meta::MetaRegistry::getInstance())->elementCount();
    EXPECT_ANY_THROW(model->extendMetaclass(Book::metaClass(), scalar(u"x"), text(u"not a number")));
    EXPECT_EQ(meta::MetaRegistry::LockedConstModel(*meta::MetaRegistry::getInstance())->elementCount(), registryElements);
    EXPECT_FALSE(model->getExtension(Book::metaClass(), u"x"));
    // An element-valued extension needs no default, and keeps the empty reference.
    model->extendMetaclass(Book::metaClass(), scalar(u"x", Author::metaClass()->getQualifiedName()), boost::none);
    EXPECT_FALSE(Book::create(model)->getExtension(u"x").getElement());
}

TEST_F(ExtensionTest, OnlyValuesOtherThanTheDefaultAreStored) {
    model->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(7));
    Novel novel = Novel::create(model);
    EXPECT_EQ(novel->getExtension(u"rank"), integer(7));
    EXPECT_FALSE(novel->hasNonDefaultExtension(u"rank"));
    novel->setExtension(u"rank", integer(3));
    EXPECT_EQ(novel->getExtension(u"rank"), integer(3));
    EXPECT_TRUE(novel->hasNonDefaultExtension(u"rank"));
    novel->setExtension(u"rank", integer(7));
    EXPECT_FALSE(novel->hasNonDefaultExtension(u"rank"));

    expectRaises<messages::NoSuchExtension>([&] { novel->getExtension(u"unknown"); });
    expectRaises<messages::NoSuchExtension>([&] { novel->setExtension(u"unknown", integer(1)); });
    expectRaises<messages::NoSuchExtension>([&] { Shelf::create(model)->getExtension(u"rank"); });
    EXPECT_ANY_THROW(novel->setExtension(u"rank", text(u"three")));

    // With a listener the model changes inside transactions only: a read needs none, and a
    // set outside one makes its own, which the listener hears of.
    addListener<ListenerRole::Observer>(model, observer);
    EXPECT_EQ(novel->getExtension(u"rank"), integer(7));
    EXPECT_FALSE(novel->hasNonDefaultExtension(u"rank"));
    novel->setExtension(u"rank", integer(1));
    ASSERT_TRUE(observer.last);
    EXPECT_TRUE(observer.last->isExtensionChanged(novel, u"rank"));
    removeListener(model, observer);

    // Declared anew, an extension does not see the values of the one it replaces.
    model->unextendMetaclass(Book::metaClass(), u"rank");
    expectRaises<messages::NoSuchExtension>([&] { novel->getExtension(u"rank"); });
    expectRaises<messages::NoSuchExtension>([&] { model->unextendMetaclass(Book::metaClass(), u"rank"); });
    model->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(1));
    EXPECT_FALSE(novel->hasNonDefaultExtension(u"rank"));
    EXPECT_EQ(novel->getExtension(u"rank"), integer(1));
}

TEST_F(ExtensionTest, ACollectionIsMadeByItsFirstRead) {
    model->extendMetaclass(Book::metaClass(), scalar(u"tags", u"String").setUpper(5), boost::none);
    Book book = Book::create(model);
    Value const tags = book->getExtension(u"tags");
    EXPECT_EQ(tags.getPayload(), book->getExtension(u"tags").getPayload());
    EXPECT_FALSE(book->hasNonDefaultExtension(u"tags"));
    expectRaises<messages::NoSuchExtension>([&] { book->setExtension(u"tags", text(u"x")); });
    entriesOf(tags).genericAdd(text(u"classic"));
    entriesOf(tags).genericAdd(text(u"anthology"));
    EXPECT_TRUE(book->hasNonDefaultExtension(u"tags"));
    // An unordered collection of unique strings is a sorted set.
    EXPECT_EQ(tags.extractEntryValues(), (std::vector<Value>{text(u"anthology"), text(u"classic")}));
    EXPECT_EQ(model->getExtension(Book::metaClass(), u"tags")->createPrototype().getUpper(), ExtensionPrototype::unlimited);
}

TEST_F(ExtensionTest, ChangesAreReportedAndRolledBack) {
    model->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(0));
    model->extendMetaclass(Book::metaClass(), scalar(u"tags", u"String").setUpper(5), boost::none);
    Book book = Book::create(model);
    Book untouched = Book::create(model);
    book->setExtension(u"rank", integer(4));
    entriesOf(book->getExtension(u"tags")).genericAdd(text(u"old"));

    Report report = record([&] {
        book->setExtension(u"rank", integer(5));
        book->setExtension(u"rank", integer(6));
        entriesOf(book->getExtension(u"tags")).genericAdd(text(u"new"));
        untouched->setTitle(u"Dune");
    });
    ASSERT_TRUE(report);
    EXPECT_TRUE(report->isExtensionChanged(book, u"rank"));
    EXPECT_TRUE(report->isExtensionChanged(book, u"tags"));
    EXPECT_FALSE(report->isExtensionChanged(untouched, u"rank"));
    EXPECT_FALSE(report->isExtensionChanged(book, u"unknown"));
    EXPECT_EQ(report->getChangedExtensions(book).size(), 2u);
    EXPECT_TRUE(report->getChangedExtensions(untouched).empty());
    EXPECT_EQ(report->getExtensionOldValue(book, u"rank"), integer(4));
    EXPECT_EQ(report->getExtensionOldValue(book, u"tags").extractEntryValues(), std::vector<Value>{text(u"old")});
    expectRaises<messages::NoSuchProperty>([&] { report->getExtensionOldValue(untouched, u"rank"); });

    // Back to the default and away from it, and a collection made: the old value comes
    // back, and nothing is stored where nothing was.
    record(
        [&] {
            book->setExtension(u"rank", integer(0));
            untouched->setExtension(u"rank", integer(9));
            entriesOf(untouched->getExtension(u"tags")).genericAdd(text(u"first"));
        },
        /*rollBack=*/true);
    EXPECT_EQ(book->getExtension(u"rank"), integer(6));
    EXPECT_FALSE(untouched->hasNonDefaultExtension(u"rank"));
    EXPECT_FALSE(untouched->hasNonDefaultExtension(u"tags"));
}

// A view of a collection extension is good for as long as its element lives: the removal of
// the extension, and a value of another declaration under its name, leave it readable.
TEST_F(ExtensionTest, AViewOfACollectionOutlivesItsExtension) {
    model->extendMetaclass(Book::metaClass(), scalar(u"tags", u"String").setUpper(5), boost::none);
    Book const read = Book::create(model), written = Book::create(model);
    std::vector<Value> views;
    for (Book const &book : {read, written}) {
        views.push_back(book->getExtension(u"tags"));
        entriesOf(views.back()).genericAdd(text(u"old"));
    }
    model->unextendMetaclass(Book::metaClass(), u"tags");
    expectRaises<messages::NoSuchExtension>([&] { read->getExtension(u"tags"); });
    model->extendMetaclass(Book::metaClass(), scalar(u"tags"), integer(0));
    written->setExtension(u"tags", integer(3));
    EXPECT_EQ(read->getExtension(u"tags"), integer(0));
    EXPECT_EQ(written->getExtension(u"tags"), integer(3));
    for (Value const &view : views)
        EXPECT_EQ(view.extractEntryValues(), std::vector<Value>{text(u"old")});
}

TEST_F(ExtensionTest, DestroyedElementsLetGoOfTheElementsTheirExtensionsName) {
    model->extendMetaclass(Book::metaClass(), scalar(u"patron", Author::metaClass()->getQualifiedName()), boost::none);
    model->extendMetaclass(Author::metaClass(), scalar(u"pick", Book::metaClass()->getQualifiedName()), boost::none);
    Book book = Book::create(model);
    Author author = Author::create(model);
    book->setExtension(u"patron", Value(Author::metaClass(), author));
    author->setExtension(u"pick", Value(Book::metaClass(), book));
    EXPECT_EQ(book->getExtension(u"patron").getElement(), author);
    book->destroy();
    author->destroy();
    // Each is held by the handle here alone, not by the other's value.
    EXPECT_EQ(book->referenceCount(), 1u);
    EXPECT_EQ(author->referenceCount(), 1u);
}

TEST_F(ExtensionTest, AReportOutlivesTheModelItTellsOf) {
    Report report;
    Book book;
    {
        Model gone = Model::createTransientModel();
        gone->extendMetaclass(Book::metaClass(), scalar(u"tags", u"String").setUpper(5), boost::none);
        book = Book::create(gone);
        entriesOf(book->getExtension(u"tags")).genericAdd(text(u"kept"));
        addListener<ListenerRole::Observer>(gone, observer);
        {
            Transaction transaction = gone->beginRevertibleTransaction();
            entriesOf(book->getExtension(u"tags")).genericAdd(text(u"more"));
            transaction.commit();
        }
        removeListener(gone, observer);
        report = observer.last;
        ASSERT_TRUE(report);
        EXPECT_EQ(report->getExtensionOldValue(book, u"tags").extractEntryValues(), std::vector<Value>{text(u"kept")});
        gone->destroy();
    }
    // The extension went with its model: the report knows of it no more, and lets go of
    // the old collection, which names the dead book as its owner, last.
    EXPECT_FALSE(report->isExtensionChanged(book, u"tags"));
    EXPECT_TRUE(report->getChangedExtensions(book).empty());
    report.reset();
    EXPECT_FALSE(book);
}

TEST_F(ExtensionTest, ListenersHearOfDeclarationsRemovalsAndTheirOwnEnd) {
    Heard heard;
    Heard leaving;
    leaving.removeSelfOnAdd = true;
    {
        Model owner = Model::createTransientModel();
        owner->addExtensionListener(&heard);
        owner->addExtensionListener(&heard);
        owner->addExtensionListener(&leaving);
        owner->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(0));
        owner->extendMetaclass(Book::metaClass(), scalar(u"note", u"String"), text(u""));
        owner->unextendMetaclass(Book::metaClass(), u"rank");
        Book book = Book::create(owner);
        book->setExtension(u"note", text(u"kept until the end"));
    }
    EXPECT_EQ(heard.events, (std::vector<std::string>{"added rank", "added note", "removed rank", "listenerRemoved"}));
    EXPECT_EQ(leaving.events, (std::vector<std::string>{"added rank", "listenerRemoved"}));

    // One listener takes off another, which is gone before its turn would have come.
    Model owner = Model::createTransientModel();
    Heard first;
    first.removeAndDelete = std::make_unique<Heard>();
    owner->addExtensionListener(&first);
    owner->addExtensionListener(first.removeAndDelete.get());
    owner->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(0));
    EXPECT_FALSE(first.removeAndDelete);
    owner->removeExtensionListener(&first);
}

TEST_F(ExtensionTest, MovedContentsTakeTheirExtensionsAlong) {
    meta::Extension const rank = model->extendMetaclass(Book::metaClass(), scalar(u"rank"), integer(0));
    model->extendMetaclass(Book::metaClass(), scalar(u"tags", u"String").setUpper(5), boost::none);
    model->extendMetaclass(Author::metaClass(), scalar(u"born"), integer(1900));
    Book book = Book::create(model);
    Author author = Author::create(model);
    book->setExtension(u"rank", integer(3));
    author->setExtension(u"born", integer(1920));
    entriesOf(book->getExtension(u"tags")).genericAdd(text(u"moved"));

    Model target = Model::createTransientModel();
    Heard heard;
    target->addExtensionListener(&heard);
    // The target declares one of them already, the same way: it keeps its own.
    meta::Extension const targetsBorn = target->extendMetaclass(Author::metaClass(), scalar(u"born"), integer(1900));
    model->moveAllContentsTo(target);
    EXPECT_EQ(target->getExtension(Book::metaClass(), u"rank"), rank);
    EXPECT_EQ(target->getExtension(Author::metaClass(), u"born"), targetsBorn);
    EXPECT_FALSE(model->getExtension(Book::metaClass(), u"rank"));
    EXPECT_EQ(book->getExtension(u"rank"), integer(3));
    EXPECT_EQ(author->getExtension(u"born"), integer(1920));
    EXPECT_EQ(book->getExtension(u"tags").extractEntryValues(), std::vector<Value>{text(u"moved")});
    EXPECT_EQ(heard.events.size(), 3u);
    target->removeExtensionListener(&heard);

    // A declaration of another shape in the target stops the move before anything moves.
    Model third = Model::createTransientModel();
    third->extendMetaclass(Book::metaClass(), scalar(u"rank", u"String"), text(u""));
    expectRaises<messages::ExtensionNameMustBeUnique>([&] { target->moveAllContentsTo(third); });
    EXPECT_EQ(book->getModel(), target);
    EXPECT_EQ(book->getExtension(u"rank"), integer(3));
    // So does a frozen target, which would take the declarations but not the elements.
    Model frozen = Model::createTransientModel();
    {
        Model::Freezer const freezer = frozen->freeze();
        expectRaises<messages::ModelFrozen>([&] { target->moveAllContentsTo(frozen); });
    }
    EXPECT_EQ(book->getModel(), target);
    EXPECT_EQ(target->getExtension(Book::metaClass(), u"rank"), rank);
    EXPECT_FALSE(frozen->getExtension(Book::metaClass(), u"rank"));
    EXPECT_EQ(book->getExtension(u"rank"), integer(3));
    // Another model's extension names no value of this one's elements.
    expectRaises<messages::NoSuchExtension>(
        [&] { book->setExtension(third->getExtension(Book::metaClass(), u"rank"), text(u"x")); });
    EXPECT_EQ(book->getExtension(u"rank"), integer(3));
}

// The first read of a collection extension makes it, also among the readers of a frozen
// model: they all meet the one collection.
TEST_F(ExtensionTest, ReadersOfAFrozenModelShareTheCollectionsTheyMake) {
    model->extendMetaclass(Book::metaClass(), scalar(u"tags", u"String").setUpper(5), boost::none);
    std::vector<Book> books;
    for (int i = 0; i < 500; ++i)
        books.push_back(Book::create(model));
    constexpr int threads = 4;
    std::vector<std::vector<void const *>> seen(threads);
    {
        Model::Freezer const freezer = model->freeze();
        std::latch start(threads);
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                start.arrive_and_wait();
                for (Book const &book : books)
                    seen[t].push_back(book->getExtension(u"tags").getPayload());
            });
        for (std::thread &thread : pool)
            thread.join();
    }
    for (int t = 1; t < threads; ++t)
        EXPECT_EQ(seen[t], seen[0]);
    for (std::size_t i = 0; i < books.size(); ++i)
        ASSERT_EQ(books[i]->getExtension(u"tags").getPayload(), seen[0][i]);
}

TEST(ExtensionPrototype, OrdersFieldByFieldInDeclarationOrder) {
    ExtensionPrototype const base = ExtensionPrototype().setName(u"b").setTypeName(u"String");
    EXPECT_EQ(base.compareWith(base), 0);
    EXPECT_TRUE(ExtensionPrototype(base).setUpper(0) < base);
    EXPECT_TRUE(base < ExtensionPrototype(base).setLower(1).setName(u"a"));
    EXPECT_TRUE(ExtensionPrototype(base).setIsUnique(false) < base);
    EXPECT_TRUE(base < ExtensionPrototype(base).setIsOrdered(true));
    EXPECT_EQ(ExtensionPrototype(base).setName(u"c").compareWith(base), 1);
    EXPECT_NE(ExtensionPrototype(base).setTypeName(u"Integer"), base);
}

} // namespace
} // namespace kivra::test::library
