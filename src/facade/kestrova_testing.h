// For tests only: lets a test start a new shared instance, as a restart of the host would, on
// whatever platform is installed then. The previous instance stays alive (unreachable to the
// facade), since its queues may still be delivering.
#pragma once

namespace kestrova {

void resetSharedInstanceForTesting();

}  // namespace kestrova
