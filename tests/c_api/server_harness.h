/* What the C test needs from C++: the in-process reference server and a sample in the
 * embedded health store. Used from the test's main thread only. */
#ifndef KESTROVA_TESTS_C_API_SERVER_HARNESS_H_
#define KESTROVA_TESTS_C_API_SERVER_HARNESS_H_

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Starts the server on 127.0.0.1; false when it cannot. */
bool harness_server_start(void);
void harness_server_stop(void);
/* Borrowed until the server stops. */
const char* harness_server_url(void);
/* A token signed for profile by the server; owned by the caller (free()). */
char* harness_token_for(const char* profile);
size_t harness_data_point_count(const char* profile);
/* Saves one body mass sample dated seconds_since_1970 into the store of data_directory. */
bool harness_seed_body_mass(const char* data_directory, double seconds_since_1970);

#ifdef __cplusplus
}
#endif

#endif /* KESTROVA_TESTS_C_API_SERVER_HARNESS_H_ */
