#include "pipeline/buffer_aggregator.h"
