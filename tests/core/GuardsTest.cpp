#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>

#include <gtest/gtest.h>

#include <memory>

namespace kivra::test::library {
namespace {

// A child keeps only a raw pointer to its container. A container that takes no part in
// the containment (a tombstone, a proxy) must be refused before the child leaves the
// model's top level: otherwise nothing holds the child, and its container pointer
// dangles once the container's last handle goes.
TEST(ContainerEnd, RefusesAContainerThatCannotHoldTheChild) {
    Model model = Model::createTransientModel();
    Shelf dead;
    Book book;
    {
        Transaction transaction = model->beginTransaction();
        dead = Shelf::create(model);
        book = Book::create(model);
        transaction.commit();
    }
    {
        Transaction transaction = model->beginTransaction();
        dead->destroy();
        transaction.commit();
    }
    Shelf proxy = Shelf::createProxy(model, ProxyId(u"uuid", u"0b6f5a3c-4a59-4a5e-9a7a-6a1b0f1f2f3f", boost::none));
    for (Shelf *container : {&dead, &proxy}) {
        Transaction transaction = model->beginTransaction();
        EXPECT_THROW(book->setShelf(*container), Error<messages::InvalidValue>);
        transaction.commit();
        container->reset();
        EXPECT_TRUE(book->isTopLevel());
        EXPECT_FALSE(book->getShelf().get());
        ASSERT_EQ(model->getTopLevelElements().size(), 1u);
        EXPECT_EQ(model->getTopLevelElements()[0].get(), book.get());
    }
}

// The shell of a gone model is reachable through a tombstone's `getModel`; a listener
// given to it would be neither told nor freed when the shell goes.
TEST(Listeners, AListenerGivenToADestroyedModelIsToldAndFreedAtOnce) {
    struct Counted : Listener {
        Counted(int &removed, int &deleted) : removed(removed), deleted(deleted) {}
        ~Counted() override { ++deleted; }
        void transactionCommitted(std::shared_ptr<ReportData> const &) {}
        void listenerRemoved() override { ++removed; }
        int &removed;
        int &deleted;
    };
    int removed = 0, deleted = 0;
    Book book;
    {
        Model model = Model::createTransientModel();
        Transaction transaction = model->beginTransaction();
        book = Book::create(model);
        transaction.commit();
    }
    Model shell = book->getModel();
    ASSERT_TRUE(shell.get());
    EXPECT_FALSE(shell);
    addOwnedListener<ListenerRole::Observer>(shell, std::make_unique<Counted>(removed, deleted));
    EXPECT_EQ(removed, 1);
    EXPECT_EQ(deleted, 1);
    EXPECT_FALSE(shell->hasListeners());
}

} // namespace
} // namespace kivra::test::library
