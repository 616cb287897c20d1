#!/usr/bin/env python3
"""The Debian package and the RPM, built by CPack from this build tree.

The .deb is installed, upgraded, removed and purged with dpkg inside an
overlay over / in a private mount namespace, so the machine's own package
database and files are never touched. In that overlay /run is empty but for
/run/systemd/system (the maintainer scripts then believe systemd runs the
host) and `systemctl` is a recorder, so what the scripts ask of systemd can be
checked without a service manager. The installed agent runs the relay's
scripted session in the end-to-end sandbox, started and stopped with its
unit's own ExecStart and ExecStop lines.

Needs root, overlayfs, util-linux, dpkg-dev, lintian and rpm. Run by ctest
with ZEL_BUILD_DIR and ZEL_SOURCE_DIR set.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = os.environ.get("ZEL_BUILD_DIR", "")
SOURCE = os.environ.get("ZEL_SOURCE_DIR", "")
NS_MARK = "ZEL_PACKAGE_TEST_IN_NS"

UNIT = "dorn-host-agent.service"
UNIT_PATH = "/usr/lib/systemd/system/" + UNIT
CONFFILE = "/etc/orvane/zel-dorn/dornConfig.ini"
STATUS_FILE = "/etc/orvane/zel-dorn/software_status"
WANTS_LINK = "/etc/systemd/system/multi-user.target.wants/" + UNIT

# Every file both packages install, with its mode.
FILES = {
    "/usr/sbin/dorn-host-agent": "-rwxr-xr-x",
    "/usr/bin/dorn-mpa-relay": "lrwxrwxrwx",
    "/usr/libexec/dorn-host-agent/mpa-relay": "-rwxr-xr-x",
    "/usr/libexec/dorn-host-agent/dorn-host-agent-stop": "-rwxr-xr-x",
    UNIT_PATH: "-rw-r--r--",
    CONFFILE: "-rw-r--r--",
    "/usr/share/man/man8/dorn-host-agent.8.gz": "-rw-r--r--",
    "/usr/share/man/man1/dorn-mpa-relay.1.gz": "-rw-r--r--",
    "/usr/share/doc/dorn-host-agent/copyright": "-rw-r--r--",
    "/usr/share/doc/dorn-host-agent/changelog.gz": "-rw-r--r--",
}
# Directories that are the package's alone and go with it.
OWN_DIRS = ["/etc/orvane/zel-dorn", "/usr/libexec/dorn-host-agent", "/usr/share/doc/dorn-host-agent"]

# Stands in for systemctl in the overlay: records each call and answers the
# questions deb-systemd-invoke asks as a running systemd would. Calls on the
# unit files alone (--root, as deb-systemd-helper makes them) go to the real
# systemctl, which then works on the overlay's files without systemd.
SYSTEMCTL_RECORDER = """#!/bin/sh
echo "$*" >> /run/systemctl.calls
case " $* " in
  *" --root="*) exec /usr/bin/systemctl.real "$@" ;;
  *" is-enabled "*) echo enabled ;;
  *" --version "*) echo "systemd 252 (252)" ;;
esac
exit 0
"""
# What the maintainer scripts may ask of a running service manager.
SERVICE_VERBS = {"start", "restart", "try-restart", "stop", "enable", "disable"}


def run(cmd, check=True, **kw):
    """Runs cmd; on failure the assertion message carries its output. HOME is
    the scratch directory, where rpm keeps its database on Debian."""
    if "env" not in kw and Packages.scratch:
        kw["env"] = dict(os.environ, HOME=Packages.scratch)
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)
    if check and p.returncode != 0:
        raise AssertionError("%s: exit %d\n%s" % (" ".join(cmd), p.returncode, p.stdout))
    return p.stdout


def mode_string(path):
    st = os.lstat(path)
    kind = "l" if os.path.islink(path) else "d" if os.path.isdir(path) else "-"
    bits = "".join(c if st.st_mode & (1 << (8 - i)) else "-" for i, c in enumerate("rwxrwxrwx"))
    return kind + bits


class Packages:
    """The packages under test: built once, in a scratch directory."""
    scratch = deb = rpm = deb_v2 = ""
    version = ""

    @classmethod
    def build(cls):
        out = os.path.join(cls.scratch, "packages")
        run(["cpack", "--config", os.path.join(BUILD, "CPackConfig.cmake"), "-G", "DEB;RPM", "-B", out])
        cls.deb = next(os.path.join(out, f) for f in os.listdir(out) if f.endswith(".deb"))
        cls.rpm = next(os.path.join(out, f) for f in os.listdir(out) if f.endswith(".rpm"))
        cls.version = run(["dpkg-deb", "-f", cls.deb, "Version"]).strip()
        # The next version: the same tree repacked with a higher version.
        tree = os.path.join(cls.scratch, "v2")
        run(["dpkg-deb", "-R", cls.deb, tree])
        control = os.path.join(tree, "DEBIAN", "control")
        with open(control) as f:
            text = f.read()
        with open(control, "w") as f:
            f.write(re.sub(r"(?m)^Version: .*$", "Version: %s+1" % cls.version, text))
        cls.deb_v2 = os.path.join(out, "dorn-host-agent_v2.deb")
        run(["dpkg-deb", "-b", "--root-owner-group", tree, cls.deb_v2])


class OverlayRoot:
    """A writable view of / for dpkg, in this process's own mount namespace.

    Everything mounted lives under a tmpfs of its own, and nothing of the
    machine is bound in, so removing the scratch tree can only ever remove
    what the test made.
    """

    def __init__(self, scratch):
        self.top = tempfile.mkdtemp(prefix="overlay.", dir=scratch)
        run(["mount", "-t", "tmpfs", "-o", "mode=0755", "zel-package-test", self.top])
        self.upper = os.path.join(self.top, "upper")
        self.root = os.path.join(self.top, "root")
        for d in ("upper", "work", "root"):
            os.mkdir(os.path.join(self.top, d))
        run(["mount", "-t", "overlay", "zel-package-test", "-o",
             "lowerdir=/,upperdir=%s,workdir=%s" % (self.upper, os.path.join(self.top, "work")), self.root])
        for d in ("run", "tmp", "dev"):
            run(["mount", "-t", "tmpfs", "-o", "mode=0755", "zel-package-test", self.path("/" + d)])
        run(["mount", "-t", "proc", "proc", self.path("/proc")])
        for name, minor in (("null", 3), ("zero", 5), ("urandom", 9)):
            os.mknod(self.path("/dev/" + name), 0o20666, os.makedev(1, minor))
            os.chmod(self.path("/dev/" + name), 0o666)
        os.makedirs(self.path("/run/systemd/system"))
        os.rename(self.path("/usr/bin/systemctl"), self.path("/usr/bin/systemctl.real"))
        # The host lets packages start their services (a container's
        # policy-rc.d may forbid it).
        for path, text in (("/usr/bin/systemctl", SYSTEMCTL_RECORDER),
                           ("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 0\n")):
            with open(self.path(path), "w") as f:
                f.write(text)
            os.chmod(self.path(path), 0o755)
        self.whiteouts_before = self.whiteouts()

    def path(self, p):
        return self.root + p

    def chroot(self, *cmd, check=True):
        return run(["chroot", self.root] + list(cmd), check=check,
                   env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8",
                        "DEBIAN_FRONTEND": "noninteractive"})

    def dpkg(self, *args):
        return self.chroot("dpkg", "--force-confold", *args)

    def install(self, deb):
        shutil.copy(deb, self.path("/tmp/"))
        return self.dpkg("-i", "/tmp/" + os.path.basename(deb))

    def systemd_calls(self):
        """What the maintainer scripts asked of the running systemd since the
        last call (unit-file work with --root aside)."""
        calls = self.path("/run/systemctl.calls")
        if not os.path.exists(calls):
            return []
        with open(calls) as f:
            lines = f.read().split("\n")
        os.remove(calls)
        return [w for line in lines if "--root=" not in line for w in line.split() if w in SERVICE_VERBS]

    def whiteouts(self):
        """Files of the machine that are deleted in this view."""
        found = set()
        for dirpath, dirs, files in os.walk(self.upper):
            for name in files + dirs:
                st = os.lstat(os.path.join(dirpath, name))
                if (st.st_mode & 0o170000) == 0o020000 and st.st_rdev == 0:
                    found.add(os.path.join(dirpath, name)[len(self.upper):])
        return found

    def close(self):
        run(["umount", "-R", self.top])


class PackageTest(unittest.TestCase):
    def test_both_packages_install_the_same_files_with_the_same_modes(self):
        deb_entries = {}
        for line in run(["dpkg-deb", "-c", Packages.deb]).splitlines():
            perms, owner, _size, _date, _time, path = line.split(None, 5)
            path = path.split(" -> ")[0].lstrip(".").rstrip("/")
            self.assertEqual(owner, "root/root", path)
            if not perms.startswith("d"):
                deb_entries[path] = perms
        self.assertEqual(deb_entries, FILES)
        self.assertEqual(run(["dpkg-deb", "-I", Packages.deb, "conffiles"]).split(), [CONFFILE])
        self.assertRegex(run(["dpkg-deb", "-f", Packages.deb, "Depends"]), r"libc6 \(>= ")

        rpm_entries, rpm_flags = {}, {}
        query = "[%{FILEMODES:perms}|%{FILEUSERNAME}|%{FILEFLAGS:fflags}|%{FILENAMES}\n]"
        for line in run(["rpm", "-qp", "--qf", query, Packages.rpm]).splitlines():
            perms, user, flags, path = line.split("|", 3)
            self.assertEqual(user, "root", path)
            rpm_flags[path] = flags
            if not perms.startswith("d"):
                rpm_entries[path] = perms
        self.assertEqual(rpm_entries, FILES)
        # The configuration file survives upgrades; the unit is no configuration.
        self.assertEqual(sorted(rpm_flags[CONFFILE]), ["c", "n"])
        self.assertNotIn("c", rpm_flags[UNIT_PATH])

    def test_lintian_reports_no_errors(self):
        out = run(["lintian", "--no-tag-display-limit", Packages.deb], check=False)
        errors = [l for l in out.splitlines() if l.startswith("E:")]
        self.assertEqual(errors, [], out)
        print("lintian:\n" + (out or "  no errors, no warnings"), file=sys.stderr)

    def test_rpm_scriptlets_do_what_the_debian_scripts_do(self):
        # Each scriptlet as the RPM carries it, run with rpm's count argument
        # against the recording systemctl.
        scripts = run(["rpm", "-qp", "--qf", "%{POSTIN}\n===\n%{PREUN}\n===\n%{POSTUN}\n", Packages.rpm])
        post, preun, postun = scripts.split("\n===\n")
        overlay = OverlayRoot(Packages.scratch)
        try:
            os.makedirs(overlay.path("/etc/orvane/zel-dorn"), exist_ok=True)
            for name, body, count, calls, status_left in (
                    ("post", post, 1, ["enable"], True),        # install: enable and start
                    ("post", post, 2, [], True),                # upgrade: %postun restarts
                    ("preun", preun, 1, [], True),              # upgrade
                    ("preun", preun, 0, ["disable"], False),    # erase: stop, disable
                    ("postun", postun, 1, ["try-restart"], True),
                    ("postun", postun, 0, [], True)):
                with self.subTest(scriptlet=name, count=count):
                    with open(overlay.path(STATUS_FILE), "w") as f:
                        f.write("0001")
                    with open(overlay.path("/tmp/scriptlet"), "w") as f:
                        f.write(body)
                    overlay.chroot("sh", "-e", "/tmp/scriptlet", str(count))
                    self.assertEqual(overlay.systemd_calls(), calls)
                    self.assertEqual(os.path.exists(overlay.path(STATUS_FILE)), status_left)
        finally:
            overlay.close()

    def test_rpm_installs_into_a_scratch_root(self):
        root = tempfile.mkdtemp(prefix="rpm-root.", dir=Packages.scratch)
        # A scratch root has no shell to run scriptlets in, and no libraries.
        run(["rpm", "-i", "--root", root, "--nodeps", "--noscripts", Packages.rpm])
        for path, mode in FILES.items():
            with self.subTest(path=path):
                self.assertEqual(mode_string(root + path), mode)
        self.assertIn(Packages.version, run(["rpm", "--root", root, "-q", "dorn-host-agent"]))

    def test_stop_helper_returns_only_once_sigterm_is_no_longer_caught(self):
        # A process that catches its first SIGTERM as the agent does, and
        # goes back to the default action only when told.
        child = subprocess.Popen(
            [sys.executable, "-c",
             "import signal, sys\n"
             "signal.signal(signal.SIGTERM, lambda *a: print('caught', flush=True))\n"
             "print('ready', flush=True); sys.stdin.readline()\n"
             "signal.signal(signal.SIGTERM, signal.SIG_DFL); print('default', flush=True)\n"
             "sys.stdin.readline()\n"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            self.assertEqual(child.stdout.readline(), "ready\n")
            helper = subprocess.Popen([os.path.join(SOURCE, "packaging/dorn-host-agent-stop"), str(child.pid)])
            self.assertEqual(child.stdout.readline(), "caught\n")
            # A negative check needs a window: a helper that does not wait
            # for the default action is gone well within it.
            with self.assertRaises(subprocess.TimeoutExpired, msg="the helper returned while SIGTERM was caught"):
                helper.wait(timeout=1)
            child.stdin.write("\n")
            child.stdin.flush()
            self.assertEqual(child.stdout.readline(), "default\n")
            # Well within the helper's own 10 s bound.
            self.assertEqual(helper.wait(timeout=3), 0)
            child.send_signal(15)  # systemd's KillSignal
            self.assertEqual(child.wait(timeout=10), -15)
        finally:
            child.kill()
            child.wait()
        # An agent that ended by itself: systemd runs ExecStop without a PID.
        self.assertEqual(subprocess.run([os.path.join(SOURCE, "packaging/dorn-host-agent-stop")]).returncode, 0)

    def test_installed_agent_is_enabled_verified_and_answers_the_session(self):
        overlay = OverlayRoot(Packages.scratch)
        try:
            overlay.install(Packages.deb)
            listed = set(overlay.chroot("dpkg", "-L", "dorn-host-agent").split())
            self.assertLessEqual(set(FILES) | set(OWN_DIRS), listed)
            for path, mode in FILES.items():
                with self.subTest(path=path):
                    self.assertEqual(mode_string(overlay.path(path)), mode)
            self.assertTrue(os.readlink(overlay.path(WANTS_LINK)).endswith("/systemd/system/" + UNIT))
            self.assertEqual(overlay.systemd_calls(), ["start"])
            overlay.chroot("systemd-analyze", "verify", UNIT_PATH)

            # The unit's own command lines, run inside the end-to-end sandbox.
            with open(overlay.path(UNIT_PATH)) as f:
                unit = dict(re.findall(r"(?m)^(ExecStart|ExecStop)=(\S+)", f.read()))
            session = run(["bash", os.path.join(SOURCE, "scripts/run.sh"), "--no-build",
                           "--agent", overlay.path(unit["ExecStart"]),
                           "--config", overlay.path(CONFFILE),
                           "--stop-helper", overlay.path(unit["ExecStop"])],
                          env=dict(os.environ, RUN_DIR=os.path.join(Packages.scratch, "run"), BUILD_DIR=BUILD))
            self.assertIn("done: 7 requests, 7 answers", session)
            self.assertIn("agent ended by the unit's stop (ExecStop, then SIGTERM)", session)
        finally:
            overlay.close()

    def test_upgrade_keeps_the_changed_conffile_and_purge_leaves_nothing(self):
        overlay = OverlayRoot(Packages.scratch)
        try:
            overlay.install(Packages.deb)
            changed = "[Monitoring]\nupdateCheckFrequency=30\n"
            with open(overlay.path(CONFFILE), "w") as f:
                f.write(changed)
            with open(overlay.path(STATUS_FILE), "w") as f:
                f.write("0001")
            os.makedirs(overlay.path("/etc/orvane/zel"), exist_ok=True)
            with open(overlay.path("/etc/orvane/zel/host-cert.pem"), "w") as f:
                f.write("the host's own\n")
            overlay.systemd_calls()

            overlay.install(Packages.deb_v2)
            self.assertIn(Packages.version + "+1", overlay.chroot("dpkg-query", "-W", "dorn-host-agent"))
            with open(overlay.path(CONFFILE)) as f:
                self.assertEqual(f.read(), changed)
            self.assertEqual(overlay.systemd_calls(), ["restart"])

            overlay.dpkg("-r", "dorn-host-agent")
            self.assertEqual(overlay.systemd_calls(), ["stop"])
            self.assertEqual([p for p in FILES if os.path.lexists(overlay.path(p))], [CONFFILE])

            overlay.dpkg("-P", "dorn-host-agent")
            left = [p for p in list(FILES) + OWN_DIRS + [STATUS_FILE, WANTS_LINK, "/etc/systemd/system/" + UNIT]
                    if os.path.lexists(overlay.path(p))]
            self.assertEqual(left, [])
            self.assertTrue(os.path.exists(overlay.path("/etc/orvane/zel/host-cert.pem")))
            # Nothing of the machine's own was deleted, dpkg's records aside.
            deleted = overlay.whiteouts() - overlay.whiteouts_before
            self.assertEqual([w for w in deleted if not w.startswith("/var/lib/dpkg/")], [])
        finally:
            overlay.close()


def main():
    if os.geteuid() != 0:
        print("package_test: needs root (mount namespaces, overlayfs, dpkg)", file=sys.stderr)
        return 1
    if not BUILD or not SOURCE:
        print("package_test: ZEL_BUILD_DIR and ZEL_SOURCE_DIR must be set", file=sys.stderr)
        return 1
    if os.environ.get(NS_MARK) != "1":
        # Every mount of the test lives and dies with a private mount namespace.
        os.execvpe("unshare", ["unshare", "--mount", "--propagation", "private", "--",
                               sys.executable] + sys.argv, dict(os.environ, **{NS_MARK: "1"}))
    Packages.scratch = tempfile.mkdtemp(prefix="package-test.", dir=BUILD)
    try:
        Packages.build()
        result = unittest.main(argv=sys.argv[:1], exit=False, verbosity=2).result
    finally:
        # Only a tree with nothing mounted in it is removed.
        with open("/proc/self/mountinfo") as f:
            mounted = [l.split()[4] for l in f if l.split()[4].startswith(Packages.scratch + "/")]
        if mounted:
            print("package_test: %s still mounted; %s left" % (mounted, Packages.scratch), file=sys.stderr)
        else:
            shutil.rmtree(Packages.scratch, ignore_errors=True)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
