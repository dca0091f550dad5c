// The vocabulary of the UI documents exchanged with the host: the value tables (tray states,
// notice types, control types, event attributes), the shared list of element and attribute
// names, and the control ids of the pages.
//
// Everything here is constant. The tables are built while the library loads, before any call
// into the plug-in, and are read-only afterwards: any thread may read them without a lock.
#ifndef TIDEWAY_PRESENTATION_UIVOCABULARY_H_
#define TIDEWAY_PRESENTATION_UIVOCABULARY_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <map>
#include <vector>

// Tray state of an update notice (attribute "state" of the root).
enum UiTrayState : int32_t {
    kTrayError = 0,
    kTrayAttention = 1,
    kTrayNonCompliant = 2,
    kTrayTransition = 3,
    kTrayNeutral = 4,
    kTrayTrusted = 5,
    kTrayGood = 6,
};

// Notice type (attribute "type" of the root). kNoticeUnknown has no text.
enum UiNoticeType : int32_t {
    kNoticeSetup = 0,
    kNoticePopup = 1,
    kNoticeUpdate = 2,
    kNoticeQuit = 3,
    kNoticeApiLog = 4,
    kNoticeRefreshUi = 5,
    kNoticeUnknown = 6,
};

// Control type: the element name of a control. kCtrlUnknown stands for any other name.
enum UiControlType : int32_t {
    kCtrlLabel = 0,
    kCtrlButton = 1,
    kCtrlAutoSizeButton = 2,
    kCtrlCheckBox = 3,
    kCtrlComboBox = 4,
    kCtrlPopup = 5,
    kCtrlTextBox = 6,
    kCtrlPasswordBox = 7,
    kCtrlTextArea = 8,
    kCtrlRadioGroup = 9,
    kCtrlMenuItem = 10,
    kCtrlTrayState = 11,
    kCtrlProgressMeter = 12,
    kCtrlCloseButton = 13,
    kCtrlOutlineListBox = 14,
    kCtrlListBox = 15,
    kCtrlTimer = 16,
    kCtrlWebBrowser = 17,
    kCtrlUnknown = 18,
};

// Event type: selects the event attribute and its control-list attribute.
enum UiEventType : int32_t {
    kEventOnPress = 0,
    kEventOnSelect = 1,
    kEventOnDoubleClick = 2,
    kEventOnPressEnter = 3,
    kEventOnOK = 4,
    kEventOnCancel = 5,
    kEventOnClose = 6,
    kEventOnError = 7,
};

struct UiValuePair {
    int32_t id;
    const char* text;
};

// One static table of (id, text) pairs. Lookup by id goes through a map built with the table;
// lookup by text walks the pairs in order and compares exactly.
class UiValueTable {
  public:
    template <size_t N>
    explicit UiValueTable(const UiValuePair (&pairs)[N]) : m_pPairs(pairs), m_Count(N) {
        for (const UiValuePair& pair : pairs) {
            m_ById.emplace(pair.id, pair.text);
            m_Sizes.push_back(strlen(pair.text));
        }
    }
    UiValueTable(const UiValueTable&) = delete;
    UiValueTable& operator=(const UiValueTable&) = delete;

    // The text of `id`, or null when the table has none.
    const char* TextOf(int32_t id) const {
        auto found = m_ById.find(id);
        return found == m_ById.end() ? nullptr : found->second;
    }
    // The id of the first pair whose text equals the `size` bytes at `text`, else `missing`.
    int32_t IdOf(const char* text, size_t size, int32_t missing) const;
    // The same for a NUL-terminated text; a null text is `missing`.
    int32_t IdOf(const char* text, int32_t missing) const;

    size_t Count() const { return m_Count; }
    const UiValuePair& At(size_t index) const { return m_pPairs[index]; }

  private:
    const UiValuePair* m_pPairs;
    size_t m_Count;
    std::map<int32_t, const char*> m_ById;
    std::vector<size_t> m_Sizes;  // strlen of each pair's text
};

extern const UiValueTable g_UiTrayStates;         // UiTrayState -> "Error" ... "Good"
extern const UiValueTable g_UiNoticeTypes;        // UiNoticeType -> "setup" ... "refresh_ui"
extern const UiValueTable g_UiControlTypes;       // UiControlType -> element name
extern const UiValueTable g_UiEventAttributes;    // UiEventType -> "OnPress" ...
extern const UiValueTable g_UiEventControlLists;  // UiEventType -> "OnPressID" ...

// The shared list of element and attribute names, common to every presentation module of the
// host, in the list's own order ("error" stands twice; "OnError" before "OnClose").
constexpr size_t kUiVocabularySize = 109;
extern const char* const* const g_UiVocabulary;  // kUiVocabularySize entries

// Names of the list, one constant each.
constexpr const char kUiBrguiEvent[] = "brguiEvent";
constexpr const char kUiBrguiNotice[] = "brguiNotice";
constexpr const char kUiType[] = "type";
constexpr const char kUiState[] = "state";
constexpr const char kUiTag[] = "tag";
constexpr const char kUiModule[] = "module";
constexpr const char kUiId[] = "id";
constexpr const char kUiValue[] = "value";
constexpr const char kUiDisabled[] = "disabled";
constexpr const char kUiEditable[] = "editable";
constexpr const char kUiSelected[] = "selected";
constexpr const char kUiHidden[] = "hidden";
constexpr const char kUiLabel[] = "label";
constexpr const char kUiMaxLength[] = "maxlength";
constexpr const char kUiTooltip[] = "tooltip";
constexpr const char kUiChecked[] = "checked";
constexpr const char kUiClass[] = "class";
constexpr const char kUiAudible[] = "audible";
constexpr const char kUiFocus[] = "focus";
constexpr const char kUiPopup[] = "popup";
constexpr const char kUiTimestamp[] = "timestamp";
constexpr const char kUiColor[] = "color";
constexpr const char kUiDispose[] = "dispose";
constexpr const char kUiServer[] = "server";
constexpr const char kUiCertErrors[] = "certErrors";
constexpr const char kUiAllowImport[] = "allowImport";
constexpr const char kUiCustom[] = "custom";
constexpr const char kUiBanner[] = "banner";
constexpr const char kUiNotification[] = "notification";
constexpr const char kUiError[] = "error";
constexpr const char kUiWarning[] = "warning";
constexpr const char kUiInfo[] = "info";
constexpr const char kUiFile[] = "file";
constexpr const char kUiCertBlocked[] = "certBlocked";
constexpr const char kUiCertWarning[] = "certWarning";
constexpr const char kUiRemediation[] = "remediation";
constexpr const char kUiRemSaveAs[] = "rem_saveas";
constexpr const char kUiRemPathLaunch[] = "rem_path_launch";
constexpr const char kUiAupPopupType[] = "aup_popup_type";
constexpr const char kUiBrowser[] = "browser";
constexpr const char kUiTitle[] = "title";
constexpr const char kUiRow[] = "row";
constexpr const char kUiLayout[] = "layout";
constexpr const char kUiPreferences[] = "preferences";
constexpr const char kUiComboItem[] = "comboitem";
constexpr const char kUiListRows[] = "listrows";
constexpr const char kUiListRow[] = "listrow";
constexpr const char kUiSelectedRow[] = "selected_row";
constexpr const char kUiNumColumns[] = "num_columns";
constexpr const char kUiListRowColumn[] = "listrowcolumn";
constexpr const char kUiListHead[] = "listhead";
constexpr const char kUiListHeader[] = "listheader";
constexpr const char kUiListItem[] = "listitem";
constexpr const char kUiListGroup[] = "listgroup";
constexpr const char kUiUpdateRows[] = "updaterows";
constexpr const char kUiRadio[] = "radio";
constexpr const char kUiApplication[] = "application";
constexpr const char kUiDefaultFileName[] = "defaultFileName";
constexpr const char kUiFileDistPath[] = "fileDistPath";
constexpr const char kUiText[] = "text";
constexpr const char kUiLog[] = "log";
constexpr const char kUiPrefIndent[] = "pref-indent";
constexpr const char kUiGroupList[] = "group_list";
constexpr const char kUiHyperlink[] = "hyperlink";
constexpr const char kUiProgressMeter[] = "progressmeter";
constexpr const char kUiProgressUpper[] = "progressupper";
constexpr const char kUiProgressValue[] = "progressvalue";
constexpr const char kUiShow[] = "show";
constexpr const char kUiMinimize[] = "minimize";
constexpr const char kUiAttention[] = "attention";
constexpr const char kUiDisableQuit[] = "disableQuit";
constexpr const char kUiShowPreferences[] = "showpreferences";
constexpr const char kUiAccessibility[] = "accessibility";
constexpr const char kUiPositionRelativeTo[] = "positionrelativeto";
constexpr const char kUiMessageHistory[] = "messagehistory";
constexpr const char kUiSystem[] = "system";
constexpr const char kUiOnPress[] = "OnPress";
constexpr const char kUiOnSelect[] = "OnSelect";
constexpr const char kUiOnDoubleClick[] = "OnDoubleClick";
constexpr const char kUiOnPressEnter[] = "OnPressEnter";
constexpr const char kUiOnOK[] = "OnOK";
constexpr const char kUiOnCancel[] = "OnCancel";
constexpr const char kUiOnError[] = "OnError";
constexpr const char kUiOnClose[] = "OnClose";
constexpr const char kUiOnPressID[] = "OnPressID";
constexpr const char kUiOnSelectID[] = "OnSelectID";
constexpr const char kUiOnDoubleClickID[] = "OnDoubleClickID";
constexpr const char kUiOnPressEnterID[] = "OnPressEnterID";
constexpr const char kUiOnOKID[] = "OnOKID";
constexpr const char kUiOnCancelID[] = "OnCancelID";
constexpr const char kUiOnErrorID[] = "OnErrorID";
constexpr const char kUiOnCloseID[] = "OnCloseID";
constexpr const char kUiExitCode[] = "exitcode";
constexpr const char kUiStartUrl[] = "start_url";
constexpr const char kUiFinalUrl[] = "final_url";
constexpr const char kUiCpTargetUrl[] = "cp_target_url";
constexpr const char kUiCookieName[] = "cookie_name";
constexpr const char kUiErrorCookieName[] = "error_cookie_name";
constexpr const char kUiOperation[] = "operation";
constexpr const char kUiOperationTimeout[] = "operation_timeout";
constexpr const char kUiError2[] = "error";  // the list's second "error"
constexpr const char kUiUserAgent[] = "user_agent";
constexpr const char kUiBrowseForCookie[] = "browse_for_cookie";
constexpr const char kUiBrowse[] = "browse";
constexpr const char kUiUnknown[] = "unknown";
constexpr const char kUiBadServerCert[] = "badservercert";
constexpr const char kUiNavigating[] = "navigating";
constexpr const char kUiGettingCookie[] = "getting_cookie";
constexpr const char kUiTimeout[] = "timeout";

// Values the plug-in writes.
constexpr const char kUiTrue[] = "true";
constexpr const char kUiFalse[] = "false";
// The plug-in's identity, attribute "module" of every notice.
constexpr const char kUiModuleIdentity[] = "com.tarvex.brenlo.presentation.tideway";

// Control ids of the pages. Status tile and tray.
constexpr const char kIdSimpleTileLabel[] = "simple_tile_label";
constexpr const char kIdSimpleStatus[] = "simple_status";
constexpr const char kIdSimpleSubstatusLeft[] = "simple_substatus_left";
constexpr const char kIdSimpleSubstatusRight[] = "simple_substatus_right";
constexpr const char kIdSimpleSubstatusFull[] = "simple_substatus_full";
constexpr const char kIdTrayStateString[] = "tray_state_string";
constexpr const char kIdErrorPopup[] = "error_popup";
// Tower page.
constexpr const char kIdTowerLbl[] = "tower_lbl";
constexpr const char kIdTower[] = "tower";
constexpr const char kIdTowerSelectLbl[] = "tower_select_lbl";
constexpr const char kIdTowerUpdatePending[] = "tower_update_pending";
constexpr const char kIdTowerListLbl[] = "tower_list_lbl";
constexpr const char kIdModeRadioGroup[] = "mode_radio_group";
constexpr const char kIdTowerListCombobox[] = "tower_list_combobox";
// Proxy credential dialog.
constexpr const char kIdCredentialDialog[] = "credential_dialog";
constexpr const char kIdCredentialPromptHeader[] = "credential_prompt_header";
constexpr const char kIdProxyHostDataLbl[] = "proxyhostdata_lbl";
constexpr const char kIdProxyRealmLbl[] = "proxyrealm_lbl";
constexpr const char kIdProxyUserLbl[] = "proxyuser_lbl";
constexpr const char kIdProxyPswdLbl[] = "proxypswd_lbl";
constexpr const char kIdProxyUser[] = "proxyuser";
constexpr const char kIdProxyPswd[] = "proxypswd";
constexpr const char kIdCredentialOkBtn[] = "credential_ok_btn";
constexpr const char kIdCredentialCancelBtn[] = "credential_cancel_btn";
constexpr const char kIdCredentialClose[] = "credential_close";
// Statistics panel: the two boxes, their groups and their rows.
constexpr const char kIdStatOutlineListBox[] = "stat_outlinelistbox";
constexpr const char kIdOverviewStatOutlineListBox[] = "overview_stat_outlinelistbox";
constexpr const char kIdGroupTowerInfo[] = "group_tower_info";
constexpr const char kIdGroupServiceInfo[] = "group_service_info";
constexpr const char kIdGroupActiveConnections[] = "group_active_connections";
constexpr const char kIdGroupTotalConnections[] = "group_total_connections";
constexpr const char kIdGroupTideway[] = "group_tideway";
constexpr const char kIdSelectionMode[] = "id_selection_mode";
constexpr const char kIdCurTower[] = "id_cur_tower";
constexpr const char kIdLastSwitch[] = "id_last_switch";
constexpr const char kIdServiceStatus[] = "id_service_status";
constexpr const char kIdEnabledSince[] = "id_enabled_since";
constexpr const char kIdDetectOnLan[] = "id_detect_on_lan";
constexpr const char kIdOnLan[] = "id_on_lan";
constexpr const char kIdActiveFiltered[] = "id_active_filtered";
constexpr const char kIdActiveBypassed[] = "id_active_bypassed";
constexpr const char kIdTotalFiltered[] = "id_total_filtered";
constexpr const char kIdTotalBypassed[] = "id_total_bypassed";

#endif  // TIDEWAY_PRESENTATION_UIVOCABULARY_H_
