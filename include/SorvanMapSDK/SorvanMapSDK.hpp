// Umbrella header of SorvanMapSDK: include this to get every public class of the kit.
#pragma once

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "SorvanMapSDK/SMIcon.hpp"
#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchDelegate.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"

/// The kit's version as text ("3.13") and as a number.
extern "C" const char SorvanMapSDKVersionString[];
extern "C" const double SorvanMapSDKVersionNumber;
