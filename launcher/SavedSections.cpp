#include "launcher/Modes.h"

#include "actions/IStartupAppsActions.h"
#include "storage/StartupItemsStorage.h"
#include "support/LogDLL.h"

#include <memory>

namespace launcher {

namespace {

const SavedSection kSections[] = {
    {storage::kDelayedSection, actions::RunKey, L"FAILED load regkeys delayed", actions::ActionDelay},
    {storage::kStartupDelayedSection, actions::StartupFolder, L"FAILED load files delayed", actions::ActionDelay},
    {storage::kDisabledSection, actions::RunKey, L"FAILED load regkeys disabled", actions::ActionDisable},
    {storage::kStartupDisabledSection, actions::StartupFolder, L"FAILED load filess disabled",
     actions::ActionDisable},
};

} // namespace

void WalkSavedSections(const wchar_t* function, const SectionVisit& visit)
{
    auto& store = storage::CStartupItemsStorage::Instance();
    for (const auto& step : kSections) {
        storage::StartupItemList loaded;
        if (store.LoadStartupItems(step.section, loaded) != ERROR_SUCCESS) {
            QM_LOG_INFO(function, L"%s", step.loadFailure);
            continue;
        }
        if (loaded.empty()) {
            continue;
        }
        storage::SharedStartupItemList items;
        for (const auto& item : loaded) {
            items.push_back(std::make_shared<storage::StartupItem>(item));
        }
        visit(step, items);
    }
}

} // namespace launcher
