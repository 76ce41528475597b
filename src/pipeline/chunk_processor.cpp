#include "pipeline/chunk_processor.h"
