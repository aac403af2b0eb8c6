// The map view's class start-up, exposed for tests: SorvanMapView::initialize() runs it once
// per process. Main queue (it may empty the shared URL cache).
#pragma once

namespace sorvan::mapview {

/// Logs the version banner and reconciles the "cacheVersion" default with the kit version.
void classStartUp();

}  // namespace sorvan::mapview
