#include "foundation/string_util.h"
