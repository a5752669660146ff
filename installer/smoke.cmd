@echo off
rem Tarrow's smoke check, for an administrator on a real desktop after installing either package
rem (for one user or for all users). Run it on the desktop of the user Tarrow runs for:
rem   1. in an ordinary Command Prompt: Tarrow is published, answers tarrowctl, holds a credential
rem      for a short-lived process, releases it, and sees a holder's exit;
rem   2. once more in a Command Prompt started with "Run as administrator": an elevated client
rem      reaches Tarrow with the package for all users, and (as Windows intends) not with the one
rem      for one user.
rem It uses the tarrowctl.exe beside it and a made-up credential (account "smoke-account") held by
rem processes of tarrowctl's own. Where the agent is installed, the identity server refuses that
rem credential's check-in; the log and the event log say so, and nothing else is affected.
rem Exit code: the number of failed checks (0: all passed).
setlocal EnableExtensions EnableDelayedExpansion
set "HERE=%~dp0"
set "CTL=%HERE%tarrowctl.exe"
set "OUT=%TEMP%\tarrow-smoke-%RANDOM%.txt"
set PASSED=0
set FAILED=0
set CRED=--url https://smoke.invalid/auth --auth-svc-id smoke-svc --role smoke-role
set TEXTS=--srv-id smoke-srv --shared-id smoke-account --lease-dn cn=tarrow-smoke --lease-expiry 20991231T000000Z

rem The package for all users registers Tarrow's AppID for the machine.
reg query "HKLM\Software\Classes\AppID\Tarrow.EXE" >nul 2>&1
if errorlevel 1 (set "PACKAGE=one user") else (set "PACKAGE=all users")
rem An elevated prompt runs at the high mandatory level.
set ELEVATED=no
rem (find, not findstr, and loops made of labels, not "for" with "goto": so that the script reads
rem the same in every cmd, Wine's among them.)
whoami /groups >"%OUT%" 2>nul
find "S-1-16-12288" "%OUT%" >nul 2>&1
if not errorlevel 1 set ELEVATED=yes
echo Tarrow smoke check: the package for %PACKAGE%, elevated: %ELEVATED%, %CTL%
if not exist "%CTL%" (
    echo FAILED: tarrowctl.exe is not beside this script
    exit /b 1
)

if "%ELEVATED%"=="yes" goto elevated

rem == Published: tarrowctl finds Tarrow in the running object table (101: not found). Tarrow is
rem started when it does not run yet, as the logon command would.
"%CTL%" status >nul 2>&1
if not "%ERRORLEVEL%"=="101" goto answered
echo Tarrow does not answer yet: starting "%HERE%Tarrow.exe"
start "" "%HERE%Tarrow.exe"
set TRIES=0
:starting
"%CTL%" hold 500
"%CTL%" status >nul 2>&1
if not "%ERRORLEVEL%"=="101" goto answered
set /a TRIES+=1
if %TRIES% lss 40 goto starting
:answered
"%CTL%" status >nul 2>&1
call :expect "Tarrow is published and answers tarrowctl status" 0 %ERRORLEVEL%

rem == A credential held by a process that stays for a minute, then released by it.
"%CTL%" register --hold-for 60000 %CRED% %TEXTS% >"%OUT%" 2>&1
call :expect "a credential is registered for a holder process" 0 %ERRORLEVEL%
set HOLDER=
for /f "usebackq tokens=3" %%p in ("%OUT%") do set HOLDER=%%p
set HAVE=1
if defined HOLDER set HAVE=0
call :expect "the holder's process id is given" 0 %HAVE%
rem (Not --own-only: that query takes one more hold for the process, to be released as well.)
"%CTL%" query %CRED% >nul 2>&1
call :expect "tarrowctl query finds it" 0 %ERRORLEVEL%
"%CTL%" status --csv >"%OUT%" 2>&1
find "smoke-svc:smoke-role:https://smoke.invalid/auth" "%OUT%" >"%OUT%.row" 2>&1
find "%HOLDER% " "%OUT%.row" >nul 2>&1
call :expect "tarrowctl status lists it with process %HOLDER%" 0 %ERRORLEVEL%
"%CTL%" release --pid %HOLDER% %CRED% >nul 2>&1
call :expect "process %HOLDER% releases it" 0 %ERRORLEVEL%
"%CTL%" query %CRED% >nul 2>&1
call :expect "after the release it is no longer held" 1 %ERRORLEVEL%

rem == A holder that exits by itself after five seconds: Tarrow sees the exit and lets it go.
"%CTL%" register --hold-for 5000 %CRED% %TEXTS% >"%OUT%" 2>&1
call :expect "a credential is registered for a short-lived holder" 0 %ERRORLEVEL%
set HOLDER=
for /f "usebackq tokens=3" %%p in ("%OUT%") do set HOLDER=%%p
"%CTL%" query %CRED% >nul 2>&1
call :expect "it is held while holder %HOLDER% runs" 0 %ERRORLEVEL%
set GONE=1
set TRIES=0
:waiting
"%CTL%" query %CRED% >nul 2>&1
if "%ERRORLEVEL%"=="1" (
    set GONE=0
    goto exited
)
set /a TRIES+=1
if %TRIES% geq 40 goto exited
"%CTL%" hold 500
goto waiting
:exited
call :expect "the exit of holder %HOLDER% is seen within 20 s" 0 %GONE%
goto done

rem == An elevated client. The package for all users publishes for any client; the one for one
rem user can only publish for its account's own clients, which an elevated process is not.
:elevated
"%CTL%" status >nul 2>&1
set RC=%ERRORLEVEL%
if "%PACKAGE%"=="all users" (
    call :expect "an elevated client reaches Tarrow for all users" 0 !RC!
    "%CTL%" register --hold-for 5000 %CRED% %TEXTS% >nul 2>&1
    call :expect "an elevated client registers a credential" 0 !ERRORLEVEL!
) else (
    rem Also when Tarrow does not run at all: the ordinary run is the one that shows it runs.
    call :expect "an elevated client does not reach Tarrow for one user, as intended" 101 !RC!
)

:done
del "%OUT%" "%OUT%.row" >nul 2>&1
echo %PASSED% passed, %FAILED% failed
if "%ELEVATED%"=="no" echo Run it once more as administrator to check an elevated client.
exit /b %FAILED%

rem :expect "what" expected actual
:expect
if "%~2"=="%~3" (
    echo ok: %~1
    set /a PASSED+=1
) else (
    echo FAILED: %~1 ^(expected %~2, got %~3^)
    set /a FAILED+=1
)
goto :eof
