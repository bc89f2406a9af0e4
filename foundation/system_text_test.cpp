#include "foundation/system_text.h"

#include <gtest/gtest.h>
