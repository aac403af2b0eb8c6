// Umbrella header of SorvanMapSDK: include this to get every public class of the kit.
#pragma once

#include "SorvanMapSDK/LocationController.hpp"
#include "SorvanMapSDK/LocationControllerDelegate.hpp"
#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SMGeodesy.hpp"
#include "SorvanMapSDK/SMIcon.hpp"
#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchDelegate.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/SMServiceTask.hpp"
#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/SMUserAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "SorvanMapSDK/Version.hpp"
#include "sorvan/platform/export.hpp"

/// The version of the library the program runs with, as text ("3.13") and as a number (3.13).
/// SorvanMapSDK/Version.hpp has the version of the headers, for #if.
extern "C" SORVAN_EXPORT const char SorvanMapSDKVersionString[];
extern "C" SORVAN_EXPORT const double SorvanMapSDKVersionNumber;
