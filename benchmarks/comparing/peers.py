"""Other programs that keep a copy of a document, if they are installed.

Each starts every time with a fresh repository, made untimed, since all except rsync store nothing that they have
already. Each ends with the same flush as the others.
"""
import os
import shutil
import subprocess


def prepared(job, *words, **environment):
    """A fresh repository, made by `words`."""
    repository = f"{job.target}/{job.next()}"
    os.mkdir(repository)
    os.environ.update(environment)
    if words:
        subprocess.run([word.format(repository) for word in words], check=True, capture_output=True)
    return repository


def rsync(job):
    return [["rsync", "-aHAX", job.source, prepared(job)], job.flush()]


def git(job):
    repository = prepared(job, "git", "init", "-q", "--bare", "{}")
    work = os.path.dirname(job.source)
    git = ["git", "-C", work, f"--git-dir={repository}", f"--work-tree={work}"]
    # Packing would go on in the background, and slow down the next program.
    who = ["-c", "user.name=ann", "-c", "user.email=ann@example.org", "-c", "maintenance.auto=false"]
    return [[*git, "add", "-f", os.path.basename(job.source)], [*git, *who, "commit", "-qm", "kept"], job.flush()]


def ostree(job):
    repository = prepared(job, "ostree", "--repo={}", "init", "--mode=bare")
    folder = job.source if os.path.isdir(job.source) else os.path.dirname(job.source)  # it can't take a single file
    return [["ostree", f"--repo={repository}", "commit", "-b", "kept", f"--tree=dir={folder}"], job.flush()]


def borg(job):
    repository = prepared(job, "borg", "init", "-e", "none", "{}", BORG_BASE_DIR=f"{job.home}/borg",
                          BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK="yes")
    return [["borg", "create", f"{repository}::kept", job.source], job.flush()]


def restic(job):
    repository = prepared(job, "restic", "-q", "--no-cache", "-r", "{}", "init", RESTIC_PASSWORD="none")
    return [["restic", "-q", "--no-cache", "-r", repository, "backup", job.source], job.flush()]


INSTALLED = {way.__name__: way for way in (rsync, ostree, restic, git, borg) if shutil.which(way.__name__)}
