#include "SorvanMapSDK/SorvanMapSDK.hpp"

extern "C" const char SorvanMapSDKVersionString[] = SORVAN_MAP_SDK_VERSION_STRING;
// major + minor / 100: 3.13 for release 3.13, the number the kit has always reported.
extern "C" const double SorvanMapSDKVersionNumber =
    SORVAN_MAP_SDK_VERSION_MAJOR + SORVAN_MAP_SDK_VERSION_MINOR / 100.0;
