/* The C half of the consumer: the C header alone compiles as C and links. */
#include <kestrova/kestrova.h>

int c_host_check(void) {
  kestrova_error error = {0, 0, 0};
  kestrova_error_clear(&error);
  kestrova_string_free(0);
  return KESTROVA_DATA_TYPE_MAX == 24 && error.domain == 0 ? 0 : 1;
}
