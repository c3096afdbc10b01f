#include "kalvrin/stream_processor.h"
#include "kalvrin/stream_processor.h"
