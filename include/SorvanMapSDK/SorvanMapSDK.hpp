// Umbrella header of SorvanMapSDK: include this to get every public class of the kit.
#pragma once

/// The kit's version as text ("3.13") and as a number.
extern "C" const char SorvanMapSDKVersionString[];
extern "C" const double SorvanMapSDKVersionNumber;

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
