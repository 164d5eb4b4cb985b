// The version of the server.
#ifndef VELOCAST_VERSION_H
#define VELOCAST_VERSION_H

// Shown on the console, answered to whoever asks, and carried in every message of the local
// channel.
inline constexpr char PRODUCT_VERSION[] = "1.2";

#endif
