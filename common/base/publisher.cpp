#include "common/base/publisher.h"

template class Subscriber<int, char*>;
template class Publisher<int, char*, std::less<int>>;
