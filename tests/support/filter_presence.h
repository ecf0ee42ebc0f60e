#pragma once

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
}

namespace kvffmpeg::test {

/// Whether the installed libavfilter has the filter, with the option if one is named: builds may leave out
/// filters, and drawtext's choice of fonts by name. Only after the library has run a filter, which in old
/// releases makes the filters known.
inline bool hasFilter(const char* name, const char* option = nullptr) {
    const AVFilter* const filter = avfilter_get_by_name(name);
    if (!filter || !option) return filter != nullptr;
    const AVClass* options = filter->priv_class;
    return options && av_opt_find(&options, option, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ);
}

}  // namespace kvffmpeg::test
