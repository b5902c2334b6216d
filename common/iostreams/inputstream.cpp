#include "common/iostreams/inputstream.h"

InputStream::~InputStream() {}
