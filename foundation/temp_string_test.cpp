#include "foundation/temp_string.h"

#include <gtest/gtest.h>
