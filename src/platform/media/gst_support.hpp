// GStreamer for the platform layer: one initialisation for the process, owning handles for
// its objects, the count of live pipelines and the one thread that stops failed pipelines.
// Internal to the platform layer. Thread-safe.
#pragma once

#include <gst/gst.h>

#include <cstddef>
#include <string>

#include "foundation/c_handle.hpp"
#include "media/diagnostics.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::media::detail {

inline void unrefObject(gpointer p) {
    gst_object_unref(p);
}

using ElementPtr = CHandle<GstElement, unrefObject>;
using BusPtr = CHandle<GstBus, unrefObject>;
using CapsPtr = CHandle<GstCaps, gst_caps_unref>;
using MessagePtr = CHandle<GstMessage, gst_message_unref>;
using ErrorPtr = CHandle<GError, g_error_free>;
using StringPtr = CHandle<gchar, g_free>;
using StructurePtr = CHandle<GstStructure, gst_structure_free>;

/// Initialises GStreamer once. False (with the reason) when it cannot start.
bool initialize(std::string* reason = nullptr);

/// Pipelines alive now; the player counts its own in and out.
void pipelineCreated();
void pipelineDestroyed();
std::size_t livePipelines();

/// The queue that stops failed pipelines and watches for stalls: state changes may block and
/// must never run on a streaming thread. Lives until the process exits.
dispatch::SerialQueue& controlQueue();

}  // namespace sorvan::media::detail
