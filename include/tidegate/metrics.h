#pragma once

// All that a program needs of the library.

#include "metrics/bound_series.h"
#include "metrics/global_resources_limit.h"
#include "metrics/histo_util.h"
#include "metrics/metric.h"
#include "metrics/metric_client.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_method.h"
#include "metrics/metric_registry.h"
#include "metrics/scoped_timer.h"
#include "tidegate/endpoint.h"
#include "tidegate/mconfiger_impl_base.h"
#include "tidegate/metric_tag.h"
#include "tidegate/service_discovery_base.h"
#include "tidegate/static_configer.h"
#include "tidegate/static_vendor.h"
#include "tidegate/vendor_interface.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_log_level.h"
