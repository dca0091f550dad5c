#include "presentation/VantoriaPresentationPlugin.h"

#include <string.h>

#include <memory>
#include <new>
#include <sstream>
#include <vector>

#include "VantoriaRecords.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "presentation/UiVocabulary.h"
#include "presentation/XmlUIEvent.h"
#include "presentation/XmlUINotice.h"

namespace {

// Text keys of the host's catalogue used here.
constexpr uint32_t kKeyErrorTitle = 5;
constexpr uint32_t kKeyDetectOnLan = 77;
constexpr uint32_t kKeyServiceStatus = 79;
constexpr uint32_t kKeyOff = 81;
constexpr uint32_t kKeyDisplayName = 167;
constexpr uint32_t kKeyUnknown = 171;
constexpr uint32_t kKeyOnLanYes = 176;
constexpr uint32_t kKeyOnLanNo = 177;
constexpr uint32_t kKeyOnLanNotApplicable = 178;
constexpr uint32_t kKeyModePlaceholder = 362;
constexpr uint32_t kKeyOn = 369;
constexpr uint32_t kKeyCurrentTower = 374;
constexpr uint32_t kKeyLastSwitch = 381;
constexpr uint32_t kKeyFiltered = 382;
constexpr uint32_t kKeyBypassed = 383;
constexpr uint32_t kKeySelectionMode = 384;
constexpr uint32_t kKeyGroupActive = 385;
constexpr uint32_t kKeyGroupTower = 386;
constexpr uint32_t kKeyGroupTotal = 387;
constexpr uint32_t kKeyEnabledSince = 389;
constexpr uint32_t kKeyGroupService = 390;
constexpr uint32_t kKeyOnLan = 391;
constexpr uint32_t kKeyClosestFailed = 392;
constexpr uint32_t kKeyTowerChangeFailed = 393;
constexpr uint32_t kKeyTileTrusted = 238;
constexpr uint32_t kKeyTileStatus3 = 367;
constexpr uint32_t kKeyTileStatus4 = 365;
constexpr uint32_t kKeyTileStatus5 = 366;
constexpr uint32_t kKeyTileStatus7 = 371;
constexpr uint32_t kKeyTileStatus8 = 373;
constexpr uint32_t kKeyTileStatus9 = 372;
constexpr uint32_t kKeyTileStatus16 = 398;
constexpr uint32_t kKeyTileStatus17 = 399;
constexpr uint32_t kKeyManualMode = 360;
constexpr uint32_t kKeyAutomaticMode = 361;
constexpr uint32_t kKeyTowerLabel = 375;
constexpr uint32_t kKeyTowerUpdatePending = 377;
constexpr uint32_t kKeyTowerSelectLabel = 394;
constexpr uint32_t kKeyTowerListLabel = 395;

// The credential dialog's own texts, which do not go through the translator.
constexpr const char kDialogTitle[] = "Tarvex Brenlo Tideway";
constexpr const char kDialogPrompt[] = "Please enter the requested proxy credentials.";
constexpr const char kDialogServerPrefix[] = "Proxy Server:  ";
constexpr const char kDialogRealmPrefix[] = "Proxy Realm:  ";
constexpr const char kDialogUser[] = "Proxy User:";
constexpr const char kDialogPassword[] = "Proxy Password:";
constexpr const char kDialogOk[] = "Ok";
constexpr const char kDialogCancel[] = "Cancel";
constexpr const char kDialogMaxLength[] = "32";
constexpr const char kCredentialControls[] = "proxyuser,proxypswd";
constexpr const char kBasicScheme[] = "Basic";

// Limits of the credential fields, in bytes without a terminator.
constexpr size_t kMaxUser = sizeof(ProxyCredInfo::szUser);
constexpr size_t kMaxPassword = sizeof(ProxyCredInfo::szPassword);

// The longest text taken from the translator, terminator included. A catalogue text is a
// caption or a sentence; a larger size is a translator fault and gives no text.
constexpr uint32_t kMaxTranslation = 64 * 1024;

// How the tile shows a status: its text alone, its text with the tower (also in the history
// line), or on the tile only, with no tray text and no history line.
enum TileKind { kTilePlain, kTileWithTower, kTileOnly };

// One status code that describes the agent's state: kept in lastStatus, shown on the tile.
struct StatusRow {
    uint64_t code;
    bool keepTower;
    int32_t trayState;
    uint32_t key;
    TileKind kind;
};

constexpr StatusRow kStatusRows[] = {
    {1, false, kTrayNeutral, kKeyOff, kTilePlain},
    {2, true, kTrayGood, kKeyOn, kTileWithTower},
    {3, false, kTrayNeutral, kKeyTileStatus3, kTilePlain},
    {4, false, kTrayNeutral, kKeyTileStatus4, kTilePlain},
    {5, false, kTrayNeutral, kKeyTileStatus5, kTilePlain},
    {6, false, kTrayTrusted, kKeyTileTrusted, kTilePlain},
    {7, false, kTrayError, kKeyTileStatus7, kTilePlain},
    {8, false, kTrayError, kKeyTileStatus8, kTilePlain},
    {9, true, kTrayGood, kKeyTileStatus9, kTileWithTower},
    {16, false, kTrayNeutral, kKeyTileStatus16, kTileOnly},
    {17, false, kTrayNeutral, kKeyTileStatus17, kTileOnly},
};

// The row of a stored status code, or null for the answers 10 to 15 and unknown codes.
const StatusRow* FindStatusRow(uint64_t code) {
    for (const StatusRow& row : kStatusRows)
        if (row.code == code)
            return &row;
    return nullptr;
}

// The first size tried for an information message.
constexpr uint32_t kInfoMessageFirstSize = 128;

// Statistics values shown before the first report.
constexpr const char kZeroCount[] = "0";
constexpr const char kStatsTag[] = "stat_update";
constexpr const char kTwoColumns[] = "2";

// The largest text taken from a result object, terminator included. The agent's texts are
// names, times and short messages; a larger size is a fault of the object and counts as a
// refusal rather than an allocation of up to 4 GiB.
constexpr uint32_t kMaxResultText = 1024 * 1024;

// A text of a result object through its buffer protocol: the size query must answer -3, the
// copy 0. The text ends at the first NUL inside the buffer.
template <typename Getter>
bool FetchText(Getter getter, std::string& text) {
    uint32_t size = 0;
    if (getter(nullptr, size) != -3 || size > kMaxResultText)
        return false;
    // One byte more than asked and zeroed, so that a text without terminator stays in bounds.
    std::vector<char> buffer(static_cast<size_t>(size) + 1, '\0');
    uint32_t given = size;
    if (getter(buffer.data(), given) != 0)
        return false;
    text.assign(buffer.data(), strnlen(buffer.data(), size));
    return true;
}

// A group of an outline list box with its caption column.
XmlNode AddListGroup(XmlNode box, const char* id, const std::string& caption) {
    XmlNode group = box.AddChild(kUiListGroup);
    group.SetAttribute(kUiId, id);
    group.AddChild(kUiListRowColumn).SetAttribute(kUiLabel, caption.c_str());
    return group;
}

// A row of a group: the caption column, and the value column when `value` is given.
XmlNode AddListRow(XmlNode group, const char* id, const std::string& caption,
                   const char* value) {
    XmlNode row = group.AddChild(kUiListRow);
    row.SetAttribute(kUiId, id);
    row.AddChild(kUiListRowColumn).SetAttribute(kUiLabel, caption.c_str());
    if (value != nullptr)
        row.AddChild(kUiListRowColumn).SetAttribute(kUiLabel, value);
    return row;
}

// Copies `text` into a fixed field, filling the rest with NULs; a text of the field's full size
// leaves no terminator.
template <size_t N>
void CopyField(char (&field)[N], const std::string& text) {
    const size_t length = strnlen(text.c_str(), N);
    memset(field, 0, N);
    memcpy(field, text.c_str(), length);
}

}  // namespace

CVantoriaPresentationPlugin::CVantoriaPresentationPlugin()
    : lastStatus(0),
      automaticMode(false),
      detectClosest(false),
      apiRunning(false),
      clientId(0),
      presentation(nullptr),
      translator(nullptr) {}

CVantoriaPresentationPlugin::~CVantoriaPresentationPlugin() {
    // A callback already under way on the API's receiver thread finishes against live fields;
    // none can start afterwards, since the threads are gone.
    api.StopCommunicator();
}

int CVantoriaPresentationPlugin::SupportsInterface(const char* name, uint64_t /*version*/) {
    // Any version of the presentation interface. A null name is answered with 0 rather than
    // read.
    return name != nullptr && strcmp(name, kPresentationInterfaceName) == 0 ? 1 : 0;
}

int32_t CVantoriaPresentationPlugin::Initialize(void* hostContext, uint32_t client,
                                                IPresentationHost* host, ITranslator* texts) {
    CRecursiveLock guard(lock);
    if (presentation.load() != nullptr)
        return -9;
    if (host == nullptr)
        return -6;
    if (hostContext == nullptr || texts == nullptr)
        return -4;
    clientId = client;
    presentation = host;
    translator = texts;
    apiRunning = false;
    return 0;
}

int32_t CVantoriaPresentationPlugin::Start() {
    CRecursiveLock guard(lock);
    if (presentation.load() == nullptr)
        return -10;
    if (apiRunning) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : API is already running");
        return -10;
    }
    // The page goes first, so that the first callback finds its controls defined.
    BuildStartupUi();
    if (api.Register(static_cast<IVantoriaApiCB*>(this)) != 0) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : Error registering API");
        return -10;
    }
    api.Start();  // replays the saved statuses on this thread
    apiRunning = true;
    return 0;
}

int32_t CVantoriaPresentationPlugin::Stop() {
    CRecursiveLock guard(lock);
    if (!apiRunning) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : Error API is not running");
        return -10;
    }
    if (api.StopStatsCollecting() != 0)
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : StopStatsCollecting returned failure");
    api.Disconnect();
    const int32_t result = api.Unregister(static_cast<IVantoriaApiCB*>(this));
    if (result != 0) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : Error stopping API");
        return result;
    }
    apiRunning = false;
    if (IPresentationHost* host = presentation.load())
        host->NotifyStopped(clientId);
    return 0;
}

int32_t CVantoriaPresentationPlugin::Shutdown() {
    CRecursiveLock guard(lock);
    if (presentation.load() == nullptr)
        return -10;
    int32_t result = 0;
    if (apiRunning) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : API is still running, shutting down API");
        Stop();
        result = -10;  // the caller came too early, whatever Stop did
    }
    presentation = nullptr;
    translator = nullptr;
    return result;
}

bool CVantoriaPresentationPlugin::IsReady() {
    return true;
}

int32_t CVantoriaPresentationPlugin::GetInterfaceName(char* buffer, uint32_t& size) {
    const size_t length = strlen(kUiModuleIdentity);
    if (buffer != nullptr && size > length)
        return strcpy_s(buffer, size, kUiModuleIdentity) == 0 ? 0 : -10;
    size = static_cast<uint32_t>(length + 1);
    return -3;
}

int32_t CVantoriaPresentationPlugin::GetDisplayName(char* buffer, uint32_t& size) {
    const std::string name = Translate(kKeyDisplayName);
    if (buffer != nullptr && size > name.size())
        return strcpy_s(buffer, size, name.c_str()) == 0 ? 0 : -10;
    size = static_cast<uint32_t>(name.size() + 1);
    return -3;
}

int32_t CVantoriaPresentationPlugin::GetTextCopy(const char* text, void* /*reserved*/,
                                                 char* buffer, uint32_t& size) {
    // A null text is taken as an empty one.
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (buffer == nullptr) {
        size = static_cast<uint32_t>(length + 1);
        return -3;
    }
    if (length == 0)
        return -2;
    return strcpy_s(buffer, size, text) == 0 ? 0 : -2;
}

int32_t CVantoriaPresentationPlugin::HandleEvent(const char* xml) {
    CRecursiveLock guard(lock);
    XmlUIEvent event(xml);
    if (!event.valid) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin : Invalid incoming XML");
        return -1;
    }
    int32_t action;
    {
        // An id the table does not know is entered with action 0; such an event carries no
        // mode radio group, so that action ends at once.
        CMutexLock table(m_TableLock);
        action = eventTable[event.GetId()];
    }
    switch (action) {
        case kActionModeRadio:
            OnModeRadio(event);
            break;
        case kActionTowerCombobox:
            OnTowerCombobox(event);
            break;
        case kActionCredentialCancel:
            OnCredentialCancel();
            break;
        case kActionCredentialSubmit:
            OnCredentialSubmit(event);
            break;
        default:
            break;
    }
    return 0;
}

void CVantoriaPresentationPlugin::OnModeRadio(const XmlUIEvent& event) {
    // The host returns the selected radio's label as the group's value.
    const std::string value = event.GetControl(kIdModeRadioGroup).GetAttribute(kUiValue);
    if (value.empty())
        return;
    // Only a change of mode does anything; the mode itself follows the agent's answer.
    const uint32_t wanted = automaticMode ? kKeyManualMode : kKeyAutomaticMode;
    if (value != Translate(wanted))
        return;
    XmlUINotice notice(kNoticeUpdate, nullptr, kUiModuleIdentity);
    notice.GetControl(kCtrlLabel, kIdTowerUpdatePending)
        .SetAttribute(kUiHidden, automaticMode ? kUiTrue : kUiFalse);
    SendNotice(notice);
    api.SetDCTSettings(automaticMode ? 0 : 1, detectClosest ? 1 : 0);
}

void CVantoriaPresentationPlugin::OnTowerCombobox(const XmlUIEvent& event) {
    if (automaticMode)
        return;
    const std::string tower = event.GetComboValue(event.GetControl(kIdTowerListCombobox));
    if (!tower.empty())
        api.SetTower(tower.c_str());  // the page changes when the agent reports the new tower
}

void CVantoriaPresentationPlugin::OnCredentialCancel() {
    XmlUINotice notice(kNoticePopup, nullptr, kUiModuleIdentity);
    notice.root.SetAttribute(kUiId, kIdCredentialDialog).SetAttribute(kUiDispose, kUiTrue);
    SendNotice(notice);  // the dialog goes before the agent hears of the cancel
    api.CancelProxyCred();
}

void CVantoriaPresentationPlugin::OnCredentialSubmit(const XmlUIEvent& event) {
    XmlUINotice notice(kNoticePopup, nullptr, kUiModuleIdentity);
    notice.root.SetAttribute(kUiId, kIdCredentialDialog).SetAttribute(kUiDispose, kUiTrue);
    const std::string user = event.GetControl(kIdProxyUser).GetAttribute(kUiValue);
    std::string password = event.GetControl(kIdProxyPswd).GetAttribute(kUiValue);
    // Refused input leaves the dialog open and tells the agent nothing.
    const bool acceptable = !user.empty() && !password.empty() && password.size() <= kMaxPassword &&
                            user.size() <= kMaxUser;
    if (acceptable) {
        ProxyCredInfo info;
        CopyField(info.szUser, user);
        CopyField(info.szPassword, password);
        CopyField(info.szReserved, std::string());
        std::string scheme;
        {
            CMutexLock table(m_TableLock);
            scheme = authScheme;
        }
        if (!scheme.empty() && scheme == kBasicScheme)
            api.SendProxyInfo(&info);  // the credentials go before the dialog does
        explicit_bzero(info.szPassword, sizeof(info.szPassword));
        SendNotice(notice);
    }
    explicit_bzero(&password[0], password.size());
}

int32_t CVantoriaPresentationPlugin::OnTowerList(IVantoriaTowerList* list) {
    CRecursiveLock guard(lock);
    if (list == nullptr)
        return -1;
    XmlUINotice notice(kNoticeUpdate, nullptr, kUiModuleIdentity);
    // An empty list answers GetCount with an error: the page keeps what it shows.
    uint64_t count = 0;
    if (list->GetCount(count) != 0)
        return -1;
    int64_t active = -1;
    if (list->GetActiveIndex(active) != 0)
        return -1;
    XmlUICtrl combobox = notice.GetControl(kCtrlComboBox, kIdTowerListCombobox);
    // The whole list or nothing: a name refused halfway sends no notice.
    for (uint64_t index = 0; index < count; ++index) {
        std::string name;
        if (!FetchText([&](char* b, uint32_t& n) { return list->GetAt(index, b, n); }, name))
            return -1;
        XmlNode item = combobox.AddChild(kUiComboItem);
        item.SetAttribute(kUiLabel, name.c_str());
        if (active >= 0 && index == static_cast<uint64_t>(active)) {
            item.SetAttribute(kUiSelected, kUiTrue);
            if (name != towerName) {
                towerName = name;
                SetLabelValue(notice, kIdTower, towerName.c_str());
                UpdateStatusText(notice);
            }
        }
    }
    SendNotice(notice);
    return 0;
}

int32_t CVantoriaPresentationPlugin::OnStatus(IVantoriaStatus* status) {
    CRecursiveLock guard(lock);
    XmlUINotice notice(kNoticeUpdate, nullptr, kUiModuleIdentity);
    uint64_t code = 0;
    if (status == nullptr || status->GetStatus(code) != 0)
        return -1;
    // A status is acted on only when it changes; a repeat sends nothing at all.
    if (static_cast<int64_t>(code) == lastStatus)
        return 0;
    // Codes 1 to 9, 16 and 17 describe the agent's state and are kept; the answers 10 to 15
    // are not, so a second failure of the same kind is shown again.
    if (const StatusRow* row = FindStatusRow(code)) {
        lastStatus = static_cast<int64_t>(code);
        if (!row->keepTower)
            towerName.clear();  // the tower stays only while the service runs
        if (code == 2 || code == 9) {
            // The service runs: ask for the data of the tower page.
            if (api.GetTowerList() != 0)
                VNTRACE(TL_API, "CVantoriaPresentationPlugin : Tower list request issue");
            if (api.GetDCTSettings() != 0)
                VNTRACE(TL_API, "CVantoriaPresentationPlugin : Get DCT Settings request issue");
        }
        if (code == 9) {
            api.StartStatsCollecting();
            api.QueryProxyState();
        }
        notice.SetState(row->trayState);
        UpdateStatusText(notice);
        // A page for "Good" is set up by the DCT report that the request above brings.
        if (row->trayState != kTrayGood)
            DisableTowerControls(notice);
    } else if (code == 10 || code == 12) {
        SendErrorPopup(code == 10 ? kKeyTowerChangeFailed : kKeyClosestFailed);
    }
    // Sent whatever it holds: for the answers and unknown codes an empty update.
    SendNotice(notice);
    return 0;
}

void CVantoriaPresentationPlugin::SendErrorPopup(uint32_t textKey) {
    XmlUINotice popup(kNoticePopup, nullptr, kUiModuleIdentity);
    popup.root.SetAttribute(kUiId, kIdErrorPopup).SetAttribute(kUiType, kUiError);
    popup.root.AddChild(kUiTitle).SetAttribute(kUiValue, Translate(kKeyErrorTitle).c_str());
    popup.root.AddChild(kUiText).SetAttribute(kUiValue, Translate(textKey).c_str());
    SendNotice(popup);
}

void CVantoriaPresentationPlugin::UpdateStatusText(XmlUINotice& notice) {
    const StatusRow* row = lastStatus > 0 ? FindStatusRow(static_cast<uint64_t>(lastStatus))
                                          : nullptr;
    if (row == nullptr)
        return;
    const std::string text = Translate(row->key);
    std::string trayText, history;
    switch (row->kind) {
        case kTilePlain:
            trayText = history = text;
            SetLabelValue(notice, kIdSimpleStatus, text.c_str());
            break;
        case kTileWithTower:
            trayText = history = text;
            if (!towerName.empty())
                history += " (" + towerName + ")";
            SetLabelValue(notice, kIdSimpleStatus, history.c_str());
            break;
        case kTileOnly:
            SetLabelValue(notice, kIdSimpleStatus, text.c_str());
            break;
    }
    if (!trayText.empty())
        notice.GetControl(kCtrlTrayState, kIdTrayStateString)
            .SetAttribute(kUiValue, trayText.c_str());
    if (!history.empty())
        notice.CreateNode(kUiLog).SetAttribute(kUiMessageHistory, history.c_str());
}

int32_t CVantoriaPresentationPlugin::OnDCTSettings(IVantoriaDCT* dct) {
    CRecursiveLock guard(lock);
    if (dct == nullptr)
        return -1;
    XmlUINotice notice(kNoticeUpdate, nullptr, kUiModuleIdentity);
    // Outside a running service the report has no bearing on the page.
    if (lastStatus != 2 && lastStatus != 9) {
        DisableTowerControls(notice);
        SendNotice(notice);
        return 0;
    }
    bool changed = false;
    dct->ActiveTowerChanged(changed);
    if (!changed) {
        // A settings report: only mode 0 is manual selection.
        uint32_t detect = 0, mode = 0, gui = 0;
        dct->GetDetectClosest(detect);
        dct->GetMode(mode);
        dct->GetGUI(gui);
        automaticMode = mode != 0;
        detectClosest = detect == 1;
        const char* listDisabled = automaticMode ? kUiTrue : kUiFalse;
        notice.GetControl(kCtrlLabel, kIdTowerListLbl).SetAttribute(kUiDisabled, listDisabled);
        notice.GetControl(kCtrlComboBox, kIdTowerListCombobox)
            .SetAttribute(kUiDisabled, listDisabled);
        if (gui == 0) {
            // The user may not choose: everything grey, whatever the mode.
            DisableTowerControls(notice);
        } else {
            notice.GetControl(kCtrlLabel, kIdTowerSelectLbl)
                .SetAttribute(kUiHidden, kUiFalse)
                .SetAttribute(kUiDisabled, kUiFalse);
            BuildModeRadioGroup(notice)
                .SetAttribute(kUiHidden, kUiFalse)
                .SetAttribute(kUiDisabled, kUiFalse);
            notice.GetControl(kCtrlLabel, kIdTowerListLbl).SetAttribute(kUiHidden, kUiFalse);
            notice.GetControl(kCtrlComboBox, kIdTowerListCombobox)
                .SetAttribute(kUiHidden, kUiFalse);
        }
        SendNotice(notice);
        return 0;
    }
    // A new active tower.
    std::string name;
    if (!FetchText([&](char* b, uint32_t& n) { return dct->GetActivatedTower(b, n); }, name))
        return -1;
    // Containment, not equality: a name already part of the shown one changes nothing shown.
    if (towerName.find(name) == std::string::npos) {
        towerName = name;
        SetLabelValue(notice, kIdTower, towerName.c_str());
        UpdateStatusText(notice);
    }
    notice.GetControl(kCtrlLabel, kIdTowerUpdatePending).SetAttribute(kUiHidden, kUiTrue);
    api.GetTowerList();  // the fresh list comes as its own callback
    SendNotice(notice);
    return 0;
}

int32_t CVantoriaPresentationPlugin::OnStatistics(IVantoriaStatistics* statistics) {
    CRecursiveLock guard(lock);
    if (statistics == nullptr)
        return -1;
    XmlUINotice notice(kNoticeUpdate, kStatsTag, kUiModuleIdentity);
    auto text = [statistics](int32_t (IVantoriaStatistics::*get)(char*, uint32_t&),
                             std::string& out) {
        return FetchText([&](char* b, uint32_t& n) { return (statistics->*get)(b, n); }, out);
    };
    // Any text getter that fails ends the report: the host never gets a half-built panel.
    XmlUICtrl box = notice.GetControl(kCtrlOutlineListBox, kIdStatOutlineListBox);
    box.SetAttribute(kUiUpdateRows, kUiTrue).SetAttribute(kUiNumColumns, kTwoColumns);

    XmlNode tower = AddListGroup(box, kIdGroupTowerInfo, Translate(kKeyGroupTower));
    XmlNode modeRow = AddListRow(tower, kIdSelectionMode, Translate(kKeySelectionMode), nullptr);
    uint64_t mode = 0;
    statistics->GetSelectionMode(mode);
    if (mode <= 2) {  // 0 manual, 1 automatic, 2 the third mode; others show no value
        static const uint32_t kModeKeys[] = {kKeyManualMode, kKeyAutomaticMode,
                                             kKeyModePlaceholder};
        modeRow.AddChild(kUiListRowColumn)
            .SetAttribute(kUiLabel, Translate(kModeKeys[mode]).c_str());
    }
    std::string value;
    if (!text(&IVantoriaStatistics::GetActiveTowerName, value))
        return -1;
    AddListRow(tower, kIdCurTower, Translate(kKeyCurrentTower), value.c_str());
    if (!text(&IVantoriaStatistics::GetTimeSinceLastTowerSelect, value))
        return -1;
    AddListRow(tower, kIdLastSwitch, Translate(kKeyLastSwitch), value.c_str());

    XmlNode service = AddListGroup(box, kIdGroupServiceInfo, Translate(kKeyGroupService));
    auto serviceWord = [statistics]() {
        uint64_t state = 0;
        statistics->GetServiceStatus(state);
        return state == 2 ? kKeyOn : state == 4 ? kKeyOff : kKeyUnknown;
    };
    AddListRow(service, kIdServiceStatus, Translate(kKeyServiceStatus),
               Translate(serviceWord()).c_str());
    if (!text(&IVantoriaStatistics::GetTimeServiceEnabled, value))
        return -1;
    AddListRow(service, kIdEnabledSince, Translate(kKeyEnabledSince), value.c_str());
    XmlNode detectRow = AddListRow(service, kIdDetectOnLan, Translate(kKeyDetectOnLan), nullptr);
    XmlNode onLanRow = AddListRow(service, kIdOnLan, Translate(kKeyOnLan), nullptr);
    uint64_t detect = 0, onLan = 0;
    statistics->GetLanState(detect, onLan);
    const uint32_t onLanKey =
        detect == 0 ? kKeyOnLanNotApplicable : onLan != 0 ? kKeyOnLanYes : kKeyOnLanNo;
    detectRow.AddChild(kUiListRowColumn)
        .SetAttribute(kUiLabel, Translate(detect != 0 ? kKeyOn : kKeyOff).c_str());
    onLanRow.AddChild(kUiListRowColumn).SetAttribute(kUiLabel, Translate(onLanKey).c_str());

    // Counts in plain decimal through one stream, emptied between rows.
    std::ostringstream digits;
    auto count = [&digits](uint64_t n) {
        digits.str(std::string());
        digits.clear();
        digits << n;
        return digits.str();
    };
    uint64_t filtered = 0, bypassed = 0, other = 0;
    XmlNode active = AddListGroup(box, kIdGroupActiveConnections, Translate(kKeyGroupActive));
    statistics->GetConnectionCounts(filtered, bypassed, other);
    AddListRow(active, kIdActiveFiltered, Translate(kKeyFiltered), count(filtered).c_str());
    AddListRow(active, kIdActiveBypassed, Translate(kKeyBypassed), count(bypassed).c_str());
    XmlNode total = AddListGroup(box, kIdGroupTotalConnections, Translate(kKeyGroupTotal));
    statistics->GetTotalCounts(filtered, bypassed, other);
    AddListRow(total, kIdTotalFiltered, Translate(kKeyFiltered), count(filtered).c_str());
    AddListRow(total, kIdTotalBypassed, Translate(kKeyBypassed), count(bypassed).c_str());

    // The overview reads its values from the object again.
    XmlUICtrl overview = notice.GetControl(kCtrlOutlineListBox, kIdOverviewStatOutlineListBox);
    overview.SetAttribute(kUiUpdateRows, kUiTrue).SetAttribute(kUiNumColumns, kTwoColumns);
    const std::string caption =
        Translate(kKeyDisplayName) + " (" + Translate(serviceWord()) + ")";
    XmlNode group = AddListGroup(overview, kIdGroupTideway, caption);
    const std::string towerCaption = Translate(kKeyCurrentTower);
    if (!text(&IVantoriaStatistics::GetActiveTowerName, value))
        return -1;
    AddListRow(group, kIdCurTower, towerCaption, value.c_str());
    const std::string detectCaption = Translate(kKeyDetectOnLan);
    statistics->GetLanState(detect, onLan);
    AddListRow(group, kIdDetectOnLan, detectCaption,
               Translate(detect != 0 ? kKeyOn : kKeyOff).c_str());
    SendNotice(notice);
    return 0;
}

int32_t CVantoriaPresentationPlugin::OnInfoMessage(IVantoriaInfoMessage* message) {
    CRecursiveLock guard(lock);
    if (message == nullptr)
        return 0;
    // One more zeroed byte than offered, so that a text without terminator stays in bounds.
    std::vector<char> buffer(kInfoMessageFirstSize + 1, '\0');
    uint32_t size = kInfoMessageFirstSize;
    int32_t result = message->GetMessageText(buffer.data(), size);
    if (result == -3) {
        if (size > kMaxResultText)
            return 0;  // an absurd size is taken as a failure: nothing sent
        buffer.assign(static_cast<size_t>(size) + 1, '\0');
        result = message->GetMessageText(buffer.data(), size);
    }
    if (result != 0)
        return 0;
    XmlUINotice notice(kNoticeUpdate, nullptr, kUiModuleIdentity);
    const std::string text(buffer.data(), strnlen(buffer.data(), buffer.size() - 1));
    notice.CreateNode(kUiLog).SetAttribute(kUiMessageHistory, text.c_str());
    SendNotice(notice);
    return 0;
}

int32_t CVantoriaPresentationPlugin::OnProxyCredRequest(std::string& proxyHost,
                                                        std::string& proxyPort,
                                                        std::string& authType,
                                                        std::string& realm) {
    // No `lock` here: only the event table and the scheme are touched, behind their leaf lock.
    {
        CMutexLock table(m_TableLock);
        authScheme = authType;
    }
    XmlUINotice notice(kNoticePopup, nullptr, kUiModuleIdentity);
    XmlNode popup = notice.root;
    popup.SetAttribute(kUiId, kIdCredentialDialog).SetAttribute(kUiType, kUiCustom);
    popup.AddChild(kUiTitle).SetAttribute(kUiValue, kDialogTitle);
    XmlNode layout = popup.AddChild(kUiLayout);

    notice.GetControl(kCtrlLabel, kIdCredentialPromptHeader, layout.AddChild(kUiRow))
        .SetAttribute(kUiValue, kDialogPrompt);

    const std::string server = kDialogServerPrefix + proxyHost + ":" + proxyPort;
    notice.GetControl(kCtrlLabel, kIdProxyHostDataLbl, layout.AddChild(kUiRow))
        .SetAttribute(kUiValue, server.c_str())
        .SetAttribute(kUiDisabled, kUiFalse)
        .SetAttribute(kUiHidden, kUiFalse);

    if (authType == kBasicScheme) {
        const std::string line = kDialogRealmPrefix + (realm.empty() ? authType : realm);
        notice.GetControl(kCtrlLabel, kIdProxyRealmLbl, layout.AddChild(kUiRow))
            .SetAttribute(kUiValue, line.c_str())
            .SetAttribute(kUiDisabled, kUiFalse)
            .SetAttribute(kUiHidden, kUiFalse);
    }

    XmlNode userRow = layout.AddChild(kUiRow);
    notice.GetControl(kCtrlLabel, kIdProxyUserLbl, userRow)
        .SetAttribute(kUiValue, kDialogUser)
        .SetAttribute(kUiDisabled, kUiFalse)
        .SetAttribute(kUiHidden, kUiFalse);
    notice.GetControl(kCtrlTextBox, kIdProxyUser, userRow)
        .SetAttribute(kUiValue, "")
        .SetAttribute(kUiDisabled, kUiFalse)
        .SetAttribute(kUiHidden, kUiFalse)
        .SetAttribute(kUiMaxLength, kDialogMaxLength)
        .SetAttribute(kUiAudible, kDialogUser)
        .SetAttribute(kUiFocus, kUiTrue);

    XmlNode passwordRow = layout.AddChild(kUiRow);
    notice.GetControl(kCtrlLabel, kIdProxyPswdLbl, passwordRow)
        .SetAttribute(kUiValue, kDialogPassword)
        .SetAttribute(kUiDisabled, kUiFalse)
        .SetAttribute(kUiHidden, kUiFalse);
    notice.GetControl(kCtrlPasswordBox, kIdProxyPswd, passwordRow)
        .SetAttribute(kUiValue, "")
        .SetAttribute(kUiDisabled, kUiFalse)
        .SetAttribute(kUiHidden, kUiFalse)
        .SetAttribute(kUiMaxLength, kDialogMaxLength)
        .SetAttribute(kUiAudible, kDialogPassword);

    EnterEvent(notice.SetControlEvent(kIdProxyUser, kEventOnPressEnter, kCredentialControls),
               kActionCredentialSubmit);
    EnterEvent(notice.SetControlEvent(kIdProxyPswd, kEventOnPressEnter, kCredentialControls),
               kActionCredentialSubmit);

    XmlNode buttonRow = layout.AddChild(kUiRow);
    XmlUICtrl ok = notice.GetControl(kCtrlButton, kIdCredentialOkBtn, buttonRow);
    ok.SetAttribute(kUiLabel, kDialogOk);
    EnterEvent(ok.SetEvent(kEventOnPress, kCredentialControls), kActionCredentialSubmit);
    XmlUICtrl cancel = notice.GetControl(kCtrlButton, kIdCredentialCancelBtn, buttonRow);
    cancel.SetAttribute(kUiLabel, kDialogCancel);
    EnterEvent(cancel.SetEvent(kEventOnPress, nullptr), kActionCredentialCancel);

    XmlUICtrl close = notice.GetControl(kCtrlCloseButton, kIdCredentialClose, popup);
    EnterEvent(close.SetEvent(kEventOnClose, nullptr), kActionCredentialCancel);

    SendNotice(notice);
    return 0;
}

std::string CVantoriaPresentationPlugin::Translate(uint32_t key) {
    ITranslator* texts = translator.load();
    if (texts == nullptr) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin: NULL translator pointer");
        return std::string();
    }
    uint32_t size = 0;
    if (texts->TranslateText(key, nullptr, size) != -3 || size == 0 || size > kMaxTranslation)
        return std::string();
    // The block is zeroed and read only within its own size, so a text without its terminator
    // cannot run past it.
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]());
    if (!buffer)
        return std::string();
    uint32_t given = size;
    if (texts->TranslateText(key, buffer.get(), given) != 0)
        return std::string();
    return std::string(buffer.get(), strnlen(buffer.get(), size));
}

void CVantoriaPresentationPlugin::SendNotice(const XmlUINotice& notice) {
    IPresentationHost* host = presentation.load();
    if (host == nullptr) {
        VNTRACE(TL_API, "CVantoriaPresentationPlugin: NULL presentation pointer");
        return;
    }
    const std::string text = notice.ToString();
    host->DeliverXml(clientId, text.c_str());
}

void CVantoriaPresentationPlugin::SetLabelValue(XmlUINotice& notice, const char* id,
                                                const char* value) {
    notice.GetControl(kCtrlLabel, id).SetAttribute(kUiValue, value);
}

void CVantoriaPresentationPlugin::EnterEvent(const std::string& eventId, int32_t action) {
    CMutexLock table(m_TableLock);
    eventTable[eventId] = action;
}

void CVantoriaPresentationPlugin::DisableTowerControls(XmlUINotice& notice) {
    // Only greyed: controls made visible stay visible.
    notice.GetControl(kCtrlLabel, kIdTowerSelectLbl).SetAttribute(kUiDisabled, kUiTrue);
    notice.GetControl(kCtrlLabel, kIdTowerUpdatePending)
        .SetAttribute(kUiHidden, kUiTrue)
        .SetAttribute(kUiDisabled, kUiTrue);
    notice.GetControl(kCtrlRadioGroup, kIdModeRadioGroup).SetAttribute(kUiDisabled, kUiTrue);
    notice.GetControl(kCtrlLabel, kIdTowerListLbl).SetAttribute(kUiDisabled, kUiTrue);
    notice.GetControl(kCtrlComboBox, kIdTowerListCombobox).SetAttribute(kUiDisabled, kUiTrue);
}

XmlUICtrl CVantoriaPresentationPlugin::BuildModeRadioGroup(XmlUINotice& notice) {
    // The automatic radio always comes first.
    XmlUICtrl group = notice.GetControl(kCtrlRadioGroup, kIdModeRadioGroup);
    const std::string automatic = Translate(kKeyAutomaticMode);
    const std::string manual = Translate(kKeyManualMode);
    group.AddChild(kUiRadio)
        .SetAttribute(kUiLabel, automatic.c_str())
        .SetAttribute(kUiSelected, automaticMode ? kUiTrue : kUiFalse);
    group.AddChild(kUiRadio)
        .SetAttribute(kUiLabel, manual.c_str())
        .SetAttribute(kUiSelected, automaticMode ? kUiFalse : kUiTrue);
    return group;
}

void CVantoriaPresentationPlugin::BuildStartupUi() {
    XmlUINotice notice(kNoticeSetup, nullptr, kUiModuleIdentity);

    // The status tile.
    const std::string tile = Translate(kKeyDisplayName) + ":";
    SetLabelValue(notice, kIdSimpleTileLabel, tile.c_str());
    for (const char* id : {kIdSimpleStatus, kIdSimpleSubstatusLeft, kIdSimpleSubstatusRight,
                           kIdSimpleSubstatusFull})
        SetLabelValue(notice, id, "");
    notice.CreateNode(kUiPreferences);

    // The tower page, its two events entered as they are armed.
    SetLabelValue(notice, kIdTowerLbl, Translate(kKeyTowerLabel).c_str());
    SetLabelValue(notice, kIdTower, "");
    SetLabelValue(notice, kIdTowerSelectLbl, Translate(kKeyTowerSelectLabel).c_str());
    notice.GetControl(kCtrlLabel, kIdTowerSelectLbl).SetAttribute(kUiDisabled, kUiTrue);
    SetLabelValue(notice, kIdTowerUpdatePending, Translate(kKeyTowerUpdatePending).c_str());
    notice.GetControl(kCtrlLabel, kIdTowerUpdatePending)
        .SetAttribute(kUiDisabled, kUiTrue)
        .SetAttribute(kUiHidden, kUiTrue);
    SetLabelValue(notice, kIdTowerListLbl, Translate(kKeyTowerListLabel).c_str());
    notice.GetControl(kCtrlLabel, kIdTowerListLbl).SetAttribute(kUiDisabled, kUiTrue);
    XmlUICtrl group = BuildModeRadioGroup(notice);
    group.SetAttribute(kUiDisabled, kUiTrue);
    EnterEvent(group.SetEvent(kEventOnSelect, kIdModeRadioGroup), kActionModeRadio);
    XmlUICtrl combobox = notice.GetControl(kCtrlComboBox, kIdTowerListCombobox);
    combobox.SetAttribute(kUiDisabled, kUiTrue);
    EnterEvent(combobox.SetEvent(kEventOnSelect, kIdTowerListCombobox), kActionTowerCombobox);

    BuildStatisticsSetup(notice);
    SendNotice(notice);
}

void CVantoriaPresentationPlugin::BuildStatisticsSetup(XmlUINotice& notice) {
    const std::string unknown = Translate(kKeyUnknown);
    const std::string pending = Translate(kKeyModePlaceholder);
    XmlUICtrl box = notice.GetControl(kCtrlOutlineListBox, kIdStatOutlineListBox);
    box.SetAttribute(kUiUpdateRows, kUiFalse).SetAttribute(kUiNumColumns, kTwoColumns);
    XmlNode tower = AddListGroup(box, kIdGroupTowerInfo, Translate(kKeyGroupTower));
    AddListRow(tower, kIdSelectionMode, Translate(kKeySelectionMode), pending.c_str());
    AddListRow(tower, kIdCurTower, Translate(kKeyCurrentTower), pending.c_str());
    AddListRow(tower, kIdLastSwitch, Translate(kKeyLastSwitch), unknown.c_str());
    XmlNode service = AddListGroup(box, kIdGroupServiceInfo, Translate(kKeyGroupService));
    AddListRow(service, kIdServiceStatus, Translate(kKeyServiceStatus), unknown.c_str());
    AddListRow(service, kIdEnabledSince, Translate(kKeyEnabledSince), unknown.c_str());
    AddListRow(service, kIdDetectOnLan, Translate(kKeyDetectOnLan), unknown.c_str());
    AddListRow(service, kIdOnLan, Translate(kKeyOnLan), unknown.c_str());
    XmlNode active = AddListGroup(box, kIdGroupActiveConnections, Translate(kKeyGroupActive));
    AddListRow(active, kIdActiveFiltered, Translate(kKeyFiltered), kZeroCount);
    AddListRow(active, kIdActiveBypassed, Translate(kKeyBypassed), kZeroCount);
    XmlNode total = AddListGroup(box, kIdGroupTotalConnections, Translate(kKeyGroupTotal));
    AddListRow(total, kIdTotalFiltered, Translate(kKeyFiltered), kZeroCount);
    AddListRow(total, kIdTotalBypassed, Translate(kKeyBypassed), kZeroCount);

    // The overview box says "true" even here; the host reads the two boxes differently.
    XmlUICtrl overview = notice.GetControl(kCtrlOutlineListBox, kIdOverviewStatOutlineListBox);
    overview.SetAttribute(kUiUpdateRows, kUiTrue).SetAttribute(kUiNumColumns, kTwoColumns);
    const std::string caption = Translate(kKeyDisplayName) + " (" + unknown + ")";
    XmlNode group = AddListGroup(overview, kIdGroupTideway, caption);
    AddListRow(group, kIdCurTower, Translate(kKeyCurrentTower), unknown.c_str());
    AddListRow(group, kIdDetectOnLan, Translate(kKeyDetectOnLan), unknown.c_str());
}
