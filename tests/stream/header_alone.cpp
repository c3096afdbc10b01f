#include "kalvrin/stream_processor.h"
