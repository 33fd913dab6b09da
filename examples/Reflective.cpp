// A metamodel described while the program runs, with no generated code: its classes make
// reflective elements, read and written through `Value`. A listener hears of a change,
// and a revertible transaction is rolled back to the model as it was.
#include <kivra/Listener.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/AbstractMetaPackage.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Property.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <iostream>

namespace {

using kivra::ModelElement;
using kivra::Value;
using kivra::ValueFlags;
using kivra::meta::Class;
using kivra::meta::Property;
using Access = ModelElement::Impl::ReflectionPrivateTag;

// Projects that own tasks. Described once, as a loader of a metamodel file would.
class TasksPackage : public kivra::meta::AbstractMetaPackage {
public:
    TasksPackage() {
        begin();
        kivra::meta::Package const package =
            createPackage(u"tasks", kivra::meta::MetaRegistry::composeUri(u"1", u"tasks"));
        project = createClass(u"Project", "", false, nullptr);
        task = createClass(u"Task", "", false, nullptr);
        for (Class const *cls : {&project, &task}) {
            (*cls)->setOwningPackage(package);
            (*cls)->setSuperclass(ModelElement::metaClass());
        }
        int index = 0;
        auto add = [&](Class const &owner, char16_t const *name, kivra::meta::Type const &type, ValueFlags shape,
                       bool composite = false) {
            Property property = createProperty(name, shape, composite, nullptr);
            setPropertyIndex(property, ++index);
            property->setOwningType(owner);
            property->setType(type);
            return property;
        };
        add(project, u"name", registry().getType(u"String"), ValueFlags::Single);
        Property const tasks = add(project, u"tasks", task, ValueFlags::Sequence, true);
        index = 0;
        add(task, u"title", registry().getType(u"String"), ValueFlags::Single);
        add(task, u"priority", registry().getType(u"Integer"), ValueFlags::Single)
            ->setDefaultValue(basalt::ustring(u"3"));
        Property const owner = add(task, u"project", project, ValueFlags::Single);
        tasks->setOpposite(owner);
        owner->setOpposite(tasks);
        registry().registerType(project);
        registry().registerType(task);
        finish();
    }
    Class project, task;
};

std::string utf8(basalt::ustring const &text) { return basalt::i18n::ustring_to_utf8(text); }

Value read(ModelElement const &element, char16_t const *name) {
    return element->getPropertyValue(element->getMetaClass()->getPropertyByName(name), Access::PUBLIC_ACCESS);
}
void write(ModelElement const &element, char16_t const *name, Value const &value) {
    element->setPropertyValue(element->getMetaClass()->getPropertyByName(name), value, Access::PUBLIC_ACCESS);
}

void show(ModelElement const &project) {
    std::cout << utf8(read(project, u"name").get<basalt::ustring>()) << ":";
    for (Value const &task : read(project, u"tasks").extractEntryValues())
        std::cout << " [" << utf8(read(task.getElement(), u"title").get<basalt::ustring>()) << " p"
                  << read(task.getElement(), u"priority").get<std::int32_t>() << "]";
    std::cout << "\n";
}

// Says what each transaction changed, with the values from before.
struct Reporter : kivra::Listener {
    void transactionCommitted(std::shared_ptr<kivra::ReportData> const &report) {
        std::cout << "observer: " << report->getCreated().size() << " created, " << report->getModified().size()
                  << " modified\n";
        for (ModelElement const &element : report->getModified())
            for (Property const &property : report->getChangedProperties(element))
                if (property->getName() == u"priority")
                    std::cout << "  priority was " << report->getOldValue(element, property).get<std::int32_t>()
                              << "\n";
    }
    void transactionCanceled(bool, std::shared_ptr<kivra::ReportData> const &) {
        std::cout << "observer: rolled back\n";
    }
};

} // namespace

int main() {
    TasksPackage const tasks;
    kivra::Model model = kivra::Model::createTransientModel();
    Reporter reporter;
    kivra::addListener<kivra::ListenerRole::Observer>(model, reporter);

    ModelElement project;
    {
        kivra::Transaction transaction = model->beginTransaction();
        // A builder staged by property, as a parser fills one.
        auto builder = tasks.project->instantiateBuilder(model);
        builder->setOrAdd(tasks.project->getPropertyByName(u"name"), Value(basalt::ustring(u"Garden")));
        project = builder->create();
        Value const list = read(project, u"tasks");
        auto &entries = *static_cast<kivra::ReferenceCollection *>(const_cast<void *>(list.getPayload()));
        for (char16_t const *title : {u"dig", u"sow", u"water"}) {
            ModelElement const task = tasks.task->instantiate(model);
            write(task, u"title", Value(basalt::ustring(title)));
            entries.getGenericInterface()->genericAdd(task);
        }
        transaction.commit();
    }
    show(project);

    ModelElement const sow = read(project, u"tasks").extractEntryValues()[1].getElement();
    {
        kivra::Transaction transaction = model->beginTransaction();
        write(sow, u"priority", Value(std::int32_t(1)));
        transaction.commit();
    }
    show(project);

    {
        kivra::Transaction transaction = model->beginTransaction(/*revertible=*/true);
        write(project, u"name", Value(basalt::ustring(u"Orchard")));
        write(sow, u"priority", Value(std::int32_t(5)));
        write(sow, u"project", Value(tasks.project, ModelElement()));
        tasks.task->instantiate(model);
        show(project);
        transaction.rollBack();
    }
    show(project);
    std::cout << "sow belongs to " << utf8(read(read(sow, u"project").getElement(), u"name").get<basalt::ustring>())
              << "\n";
    kivra::removeListener(model, reporter);
}
