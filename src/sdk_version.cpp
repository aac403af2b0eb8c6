#include "SorvanMapSDK/SorvanMapSDK.hpp"

extern "C" const char SorvanMapSDKVersionString[] = SORVAN_KIT_VERSION;
extern "C" const double SorvanMapSDKVersionNumber = 3.13;
