#pragma once
/// \file
/// Forward declarations of kivra's core classes, for headers that only name them.

#include <boost/uuid/uuid.hpp>

#include <functional>
#include <memory>

namespace kivra {

class ElementImpl;
class TransactionCoordinator;
class Model;
class ModelConstellation;
class ModelElement;
class ModelSpec;
class Transaction;
class TransactionImpl;
class TransactionGroup;
class Listener;
class ListenerHolderBase;
class ReportData;
class ExtensionListener;
class WorkQueue;
class ModelUpdater;
class AbstractOwnedCollection;
class AbstractTransactionFactoryImpl;
class ElementId;
class ProxyId;
class Value;
// The collections of values: generated headers name them, and code that uses one
// includes <kivra/PrimitiveCollection.hpp> or <kivra/StringToStringMap.hpp>.
template <class V> class PrimitiveSequence;
template <class V> class PrimitiveSet;
template <class V> class UnorderedPrimitiveSet;
template <class K, class V> class PrimitiveMap;
class StringToStringMap;

namespace meta {
class VersionInfo;
} // namespace meta

namespace log {
class Span;
} // namespace log

namespace io {
class Endpoint;
} // namespace io

namespace datasource {
class ActiveDataSource;
class TransactionId;
} // namespace datasource

/// Makes the work queue of a model or a constellation from its owner and a span.
using WorkQueueFactory = std::function<std::shared_ptr<WorkQueue>(TransactionCoordinator const *, log::Span)>;

} // namespace kivra
