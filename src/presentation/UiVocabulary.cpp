#include "presentation/UiVocabulary.h"

#include <string.h>

namespace {

const UiValuePair kTrayStatePairs[] = {
    {kTrayError, "Error"},
    {kTrayAttention, "Attention"},
    {kTrayNonCompliant, "NonCompliant"},
    {kTrayTransition, "Transition"},
    {kTrayNeutral, "Neutral"},
    {kTrayTrusted, "Trusted"},
    {kTrayGood, "Good"},
};

const UiValuePair kNoticeTypePairs[] = {
    {kNoticeSetup, "setup"}, {kNoticePopup, "popup"},   {kNoticeUpdate, "update"},
    {kNoticeQuit, "quit"},   {kNoticeApiLog, "apilog"}, {kNoticeRefreshUi, "refresh_ui"},
};

const UiValuePair kControlTypePairs[] = {
    {kCtrlLabel, "label"},
    {kCtrlButton, "button"},
    {kCtrlAutoSizeButton, "autosizebutton"},
    {kCtrlCheckBox, "checkbox"},
    {kCtrlComboBox, "combobox"},
    {kCtrlPopup, "popup"},
    {kCtrlTextBox, "textbox"},
    {kCtrlPasswordBox, "passwordbox"},
    {kCtrlTextArea, "textarea"},
    {kCtrlRadioGroup, "radiogroup"},
    {kCtrlMenuItem, "menuitem"},
    {kCtrlTrayState, "traystate"},
    {kCtrlProgressMeter, "progressmeter"},
    {kCtrlCloseButton, "closebutton"},
    {kCtrlOutlineListBox, "outlinelistbox"},
    {kCtrlListBox, "listbox"},
    {kCtrlTimer, "timer"},
    {kCtrlWebBrowser, "webbrowser"},
};

const UiValuePair kEventAttributePairs[] = {
    {kEventOnPress, kUiOnPress},
    {kEventOnSelect, kUiOnSelect},
    {kEventOnDoubleClick, kUiOnDoubleClick},
    {kEventOnPressEnter, kUiOnPressEnter},
    {kEventOnOK, kUiOnOK},
    {kEventOnCancel, kUiOnCancel},
    {kEventOnClose, kUiOnClose},
    {kEventOnError, kUiOnError},
};

const UiValuePair kEventControlListPairs[] = {
    {kEventOnPress, kUiOnPressID},
    {kEventOnSelect, kUiOnSelectID},
    {kEventOnDoubleClick, kUiOnDoubleClickID},
    {kEventOnPressEnter, kUiOnPressEnterID},
    {kEventOnOK, kUiOnOKID},
    {kEventOnCancel, kUiOnCancelID},
    {kEventOnClose, kUiOnCloseID},
    {kEventOnError, kUiOnErrorID},
};

const char* const kVocabularyList[] = {
    kUiBrguiEvent,
    kUiBrguiNotice,
    kUiType,
    kUiState,
    kUiTag,
    kUiModule,
    kUiId,
    kUiValue,
    kUiDisabled,
    kUiEditable,
    kUiSelected,
    kUiHidden,
    kUiLabel,
    kUiMaxLength,
    kUiTooltip,
    kUiChecked,
    kUiClass,
    kUiAudible,
    kUiFocus,
    kUiPopup,
    kUiTimestamp,
    kUiColor,
    kUiDispose,
    kUiServer,
    kUiCertErrors,
    kUiAllowImport,
    kUiCustom,
    kUiBanner,
    kUiNotification,
    kUiError,
    kUiWarning,
    kUiInfo,
    kUiFile,
    kUiCertBlocked,
    kUiCertWarning,
    kUiRemediation,
    kUiRemSaveAs,
    kUiRemPathLaunch,
    kUiAupPopupType,
    kUiBrowser,
    kUiTitle,
    kUiRow,
    kUiLayout,
    kUiPreferences,
    kUiComboItem,
    kUiListRows,
    kUiListRow,
    kUiSelectedRow,
    kUiNumColumns,
    kUiListRowColumn,
    kUiListHead,
    kUiListHeader,
    kUiListItem,
    kUiListGroup,
    kUiUpdateRows,
    kUiRadio,
    kUiApplication,
    kUiDefaultFileName,
    kUiFileDistPath,
    kUiText,
    kUiLog,
    kUiPrefIndent,
    kUiGroupList,
    kUiHyperlink,
    kUiProgressMeter,
    kUiProgressUpper,
    kUiProgressValue,
    kUiShow,
    kUiMinimize,
    kUiAttention,
    kUiDisableQuit,
    kUiShowPreferences,
    kUiAccessibility,
    kUiPositionRelativeTo,
    kUiMessageHistory,
    kUiSystem,
    kUiOnPress,
    kUiOnSelect,
    kUiOnDoubleClick,
    kUiOnPressEnter,
    kUiOnOK,
    kUiOnCancel,
    kUiOnError,
    kUiOnClose,
    kUiOnPressID,
    kUiOnSelectID,
    kUiOnDoubleClickID,
    kUiOnPressEnterID,
    kUiOnOKID,
    kUiOnCancelID,
    kUiOnErrorID,
    kUiOnCloseID,
    kUiExitCode,
    kUiStartUrl,
    kUiFinalUrl,
    kUiCpTargetUrl,
    kUiCookieName,
    kUiErrorCookieName,
    kUiOperation,
    kUiOperationTimeout,
    kUiError2,
    kUiUserAgent,
    kUiBrowseForCookie,
    kUiBrowse,
    kUiUnknown,
    kUiBadServerCert,
    kUiNavigating,
    kUiGettingCookie,
    kUiTimeout,
};
static_assert(sizeof(kVocabularyList) / sizeof(kVocabularyList[0]) == kUiVocabularySize,
              "the shared list has 109 names");

}  // namespace

int32_t UiValueTable::IdOf(const char* text, size_t size, int32_t missing) const {
    if (text == nullptr)
        return missing;
    for (size_t i = 0; i < m_Count; ++i) {
        if (m_Sizes[i] == size && memcmp(m_pPairs[i].text, text, size) == 0)
            return m_pPairs[i].id;
    }
    return missing;
}

int32_t UiValueTable::IdOf(const char* text, int32_t missing) const {
    return text == nullptr ? missing : IdOf(text, strlen(text), missing);
}

const UiValueTable g_UiTrayStates(kTrayStatePairs);
const UiValueTable g_UiNoticeTypes(kNoticeTypePairs);
const UiValueTable g_UiControlTypes(kControlTypePairs);
const UiValueTable g_UiEventAttributes(kEventAttributePairs);
const UiValueTable g_UiEventControlLists(kEventControlListPairs);

const char* const* const g_UiVocabulary = kVocabularyList;
