/* The launcher's procedures and module-wide state, grouped by the file that owns them. */
#ifndef LAUNCHER_LAUNCHER_H
#define LAUNCHER_LAUNCHER_H

#include <Carbon/Carbon.h>
#include <stdint.h>
#include <stddef.h>
#include <sys/sysctl.h>

/* ---- Constants the launcher's files share ---- */
constexpr size_t kPathSize = 1024;                             // paths and command lines
constexpr char kStagedPackage[] = "/tmp/qv_tmp_vantorel.mpkg"; // the package staged for installation
constexpr char kAutoSetupCopy[] = "/tmp/AutoSetup";            // AutoSetup copied for the disc's script
constexpr UInt32 kCloseCommand = kHICommandClose;              // "clos": the copy is done, close the window
constexpr char kMainSource[] = "main";                         // log source of all but the progress window
constexpr char kProgressWindowSource[] = "ProgressWindow";     // log source of the progress window

/* ---- Version records (VersionRecords.cpp) ---- */
struct VersionRecord {
    int32_t VRVersion;
    int32_t BuildVersion;
    int32_t DebugVersion;
    int32_t SPVersion;
    int32_t CustomizeVersion;
    int32_t MajorVersion;
};

extern VersionRecord pkgVersion;       // the package on the medium
extern VersionRecord installedVersion; // the installed application
extern char szAppPath[kPathSize];      // the installed application's path, from the package's configuration
extern bool isShowProcessWindow;       // show the progress window while the package is copied

bool GetVersionCfg(VersionRecord* record);
bool GetPkgVersion();
bool GetInstalledVersion();
bool IsApplicationExists();
bool IsFileExist(const char* path);

/* The launch decision on the two records (tables A and B of the entry point): the dialog
 * to show and, for the two message boxes, its text key; kNoDialog when the installed
 * copy is as new as the package or newer and is to be started. */
enum DialogChoice { kNoDialog = 0, kMessageBoxR7, kWarningBoxR7, kMessageBox };
DialogChoice ChooseDialog(const VersionRecord* installed, const VersionRecord* package, const char** textKey);

/* ---- Bundle location and application launch (BundleLaunch.cpp) ---- */
bool GetModulePath(char* buffer, int32_t size);
char* strrstr(const char* haystack, const char* needle);
bool URLToString(const char* source, char* destination);
void AutoRunApplication();

/* ---- Completion event (CompletionEvent.cpp) ---- */
extern MPSemaphoreID m_semaphore;

void SetEvent(const char* name);
bool Wait(uint32_t timeout);
bool Notify();
void StopEvent();

/* ---- Process and system queries (ProcessQueries.cpp) ---- */
extern struct kinfo_proc* pprocesslist; // the process table, fetched once, never released
extern size_t processcount;             // its number of records

int GetProcessList(struct kinfo_proc** procList, size_t* procCount);
bool CheckProcessExists(const char* name);
bool IsProcessExists(const char* name);
bool IsOldThanMacOS105();

/* ---- Install dispatch (InstallDispatch.cpp) ---- */
void AutoInstallPkg(bool showProgress);
void copytolocal(const char* source, const char* destination);

/* ---- Package staging and system Installer (PackageStaging.cpp) ---- */
void CleanTmpPKGFile();
bool CopyPkgToLocal();
void* threadFunc(void* arg);
void AutoRunInstallPkg(bool showProgress);

/* ---- Message boxes (MessageBoxes.cpp) ---- */
extern WindowRef g_msgBoxRef;
extern ControlRef g_msgBoxYesRef;
extern ControlRef g_msgBoxNoRef;
extern EventHandlerRef g_appClickEventHandlerRef;
extern const EventTypeSpec CTRL_EVENT[1];
extern const EventTypeSpec WIN_EVENT[1];

CFStringRef GetText(const char* key);
ControlRef GetControlRef(WindowRef window, OSType signature, SInt32 id);
OSStatus SetControlTextEx(ControlRef control, const char* key);
void MessageBox(const char* textKey);
void MessageBoxR7(const char* textKey);
void WarningBoxR7();
OSStatus MessageBoxAppClickEventHandler(EventHandlerCallRef callRef, EventRef event, void* userData);
OSStatus WarningBoxAppClickEventHandler(EventHandlerCallRef callRef, EventRef event, void* userData);
OSStatus CloseWindowHandle(EventHandlerCallRef callRef, EventRef event, void* userData);

/* ---- Progress window (ProgressWindow.cpp) ---- */
extern WindowRef g_ProgressWindowRef;
extern HIViewRef g_ImageViewRef;
extern const EventTypeSpec sApplicationEvents[1];

void ShowProgressWindow();
OSStatus ProgressWindowHandler(EventHandlerCallRef callRef, EventRef event, void* userData);
void SendCommandProcessEvent(UInt32 commandID);

#endif
