#pragma once

#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/internal/LastError.h"

template <class Record>
int QZHSMLowLevelQZFS::ask(const DriverRequest<Record>& request, Record& record, std::string_view path) {
    return begin() ? askFurther(request, record, path) : -1;
}

template <class Record>
int QZHSMLowLevelQZFS::askFurther(const DriverRequest<Record>& request, Record& record,
                                  std::string_view path) {
    const int err = request.send(admin_fd.get(), record);
    return err == 0 ? 0 : failRequest(*this, request, path, err);
}
