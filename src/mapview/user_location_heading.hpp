// The angle the user drawing's arrow is turned by. Pure; any thread.
#pragma once

namespace sorvan::mapview {

/// (heading - cameraHeading) reduced modulo 360 in single precision, keeping the sign of the
/// difference, in radians: 350 against 10 gives 340 degrees, 10 against 350 gives -340.
double arrowAngle(double heading, double cameraHeading);

}  // namespace sorvan::mapview
