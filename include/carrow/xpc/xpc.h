#pragma once

// Typed connections to services over Unix sockets: service descriptions and proxies, exported
// objects, listeners, and the per-connection task registry.

#include <carrow/xpc/argument_expectation.h>
#include <carrow/xpc/connection.h>
#include <carrow/xpc/domain_error.h>
#include <carrow/xpc/xpc_class.h>
#include <carrow/xpc/xpc_connection.h>
#include <carrow/xpc/xpc_connection_kind.h>
#include <carrow/xpc/xpc_endpoint.h>
#include <carrow/xpc/xpc_exported_object.h>
#include <carrow/xpc/xpc_interface.h>
#include <carrow/xpc/xpc_listener.h>
#include <carrow/xpc/xpc_protocol.h>
#include <carrow/xpc/xpc_proxy.h>
#include <carrow/xpc/xpc_task_group.h>
