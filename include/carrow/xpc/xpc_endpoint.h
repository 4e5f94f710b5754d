#pragma once

#include <concepts>
#include <memory>

#include <carrow/xpc/connection.h>
#include <carrow/xpc/xpc_connection.h>
#include <carrow/xpc/xpc_exported_object.h>
#include <carrow/xpc/xpc_task_group.h>

namespace carrow {

/// An object a service exports: it names the service description it serves (`ConnectionType`)
/// and owns the task group of its connection, through which it runs each request:
///
/// ```
/// class VolumeEndpoint {
///  public:
///   using ConnectionType = VolumeServiceConnection;
///   explicit VolumeEndpoint(const void* connectionID)
///       : taskGroup_(std::make_shared<XPCTaskGroup>(connectionID)) {}
///   std::shared_ptr<XPCTaskGroup> taskGroup() const { return taskGroup_; }
///   Async<Volumes> serve(MountedVolumes) {
///     auto list = []() -> Async<Volumes> { co_return listVolumes(); };
///     co_return co_await taskGroup_->withXPCTask({}, "mountedVolumes", list);
///   }
///  private:
///   std::shared_ptr<XPCTaskGroup> taskGroup_;
/// };
/// ```
template <class E>
concept XPCEndpoint = requires(const E& endpoint) {
  typename E::ConnectionType;
  requires Connection<typename E::ConnectionType>;
  { endpoint.taskGroup() } -> std::convertible_to<std::shared_ptr<XPCTaskGroup>>;
};

/// Configures an accepted connection to export `endpoint` under `exportedProtocol` (the
/// protocol type's value, for example `VolumeProtocol{}`), and resumes it: the exported
/// interface is the protocol's with its declared classes (no class table is applied), the
/// interruption handler calls `connectionInterrupted()` and the invalidation handler
/// `connectionInvalidated()` on the endpoint's task group, read once here and held strongly by
/// the handlers.
template <XPCEndpoint E, XPCProtocolType P>
requires XPCExports<E, P>
void configure(const std::shared_ptr<XPCConnection>& connection, std::shared_ptr<E> endpoint,
               P /*exportedProtocol*/) {
  connection->setExportedInterface(XPCInterface::withProtocol<P>());
  std::shared_ptr<XPCTaskGroup> group = endpoint->taskGroup();
  connection->setExportedObject(exportObject<P>(std::move(endpoint)));
  connection->setInterruptionHandler([group] { group->connectionInterrupted(); });
  connection->setInvalidationHandler([group] { group->connectionInvalidated(); });
  connection->resume();
}

}  // namespace carrow
