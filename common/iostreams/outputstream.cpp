#include "common/iostreams/outputstream.h"

OutputStream::~OutputStream() {}
