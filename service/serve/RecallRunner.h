#pragma once

#include "lowlevel/QZHSMLowLevelCtx.h"
#include "service/Observer.h"
#include "service/RecallJob.h"
#include "service/StoreSource.h"
#include "service/serve/RecallService.h"
#include "service/stores/StoreConfig.h"

#include <memory>

/// A back-end for driverless stubs and its kind. It belongs to one thread at a time.
struct DriverlessBackEnd {
    QZHSMLowLevelCtx registry{2};
    std::unique_ptr<StubKind> kind = kindOf(*registry.getByFileName(""));
};

/// Brings the data of the stubs that a service hands out, one after the other. Belongs to one thread, and has
/// a back-end of its own.
class RecallRunner {
public:
    RecallRunner(RecallService& service, NamedStores& stores);

    /// Works until the service stops.
    void run();

private:
    class Recall;

    void serve(const RecallService::Stub& stub);
    void serve(const RecallService::Stub& stub, const OpenFile& file);
    bool settle(const OpenFile& file, const FileLook& look);
    StubKind& kind() { return *m_own->kind; }
    void goOn(std::unique_ptr<Recall> recall);
    template <class Act>
    void guarded(Recall& recall, Act act);

    RecallService& m_service;
    std::shared_ptr<DriverlessBackEnd> m_own; ///< the recall's too, which takes it along if it is left
    NamedStores& m_stores;
};
