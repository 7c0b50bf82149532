// C++ hosts include the generated header too; building this keeps it valid
// C++ under -pedantic, beside the public header.
#include "appliance_schema.h"
#include "gikraidrum.h"

static_assert(sizeof(appliance_interface_t) == APPLIANCE_INTERFACE_SIZE);
