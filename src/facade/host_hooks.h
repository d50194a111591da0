// What hosts built in this tree (the kestrova command) may ask of the shared instance beyond the
// public facade: an application leaves retries to the library's next start and never stops
// collection without disconnecting, but a long-running command does both. Not installed; every
// function is thread-safe and, like the facade, lets no exception out.
#pragma once

namespace kestrova::host {

// Sends every upload file on disk to the back end again, through the configured instance's
// API queue, and the stored statistics it has not accepted yet; the outcomes are logged as
// those of any upload. False when nothing is configured.
bool retryPendingUploads() noexcept;

// Stops collection and keeps everything else: the connected profile, the anchors, the stored
// statistics and the upload files. Deliveries already under way still write their files.
void stopCollection() noexcept;

}  // namespace kestrova::host
