# The headers that a service includes, and the headers that those include. Users get them as one tree, see
# TidegateStageHeaders.cmake.

set(TIDEGATE_PUBLIC_HEADERS
    include/tidegate/endpoint.h
    include/tidegate/log.h
    include/tidegate/mconfiger_impl_base.h
    include/tidegate/metric_tag.h
    include/tidegate/metrics.h
    include/tidegate/sampler.h
    include/tidegate/service_discovery_base.h
    include/tidegate/static_configer.h
    include/tidegate/static_vendor.h
    include/tidegate/tag_view.h
    include/tidegate/vendor_interface.h
    src/metrics/bound_series.h
    src/metrics/cell_ptr.h
    src/metrics/client_parts.h
    src/metrics/core_init_cfg.h
    src/metrics/global_resources_limit.h
    src/metrics/histo_util.h
    src/metrics/metric.h
    src/metrics/metric_client.h
    src/metrics/metric_collector_item.h
    src/metrics/metric_factory.h
    src/metrics/metric_method.h
    src/metrics/metric_parts.h
    src/metrics/metric_registry.h
    src/metrics/registry_parts.h
    src/metrics/scoped_timer.h
    src/util/event_counter.h
    src/util/metric_common.h
    src/util/metric_error_code.h
    src/util/metric_export.h
    src/util/metric_log_level.h)
