#include "common/base/tagvalue.h"

// Out of line, so that the class's virtual table lives in the library.
TagValue::~TagValue() = default;
