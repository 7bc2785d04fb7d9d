/* Preloaded into the i386 root when it runs under qemu-i386.  qemu leaves the
 * x86 trap number out of 32-bit signal contexts, and Wine decides the
 * exception code from it: an access violation came out as an illegal
 * instruction, an integer division by zero as a floating-point fault.  This
 * wraps sigaction so that the handlers of fault signals see the trap number a
 * kernel would have stored.  Built with -nostdlib and no headers: the i386
 * layouts it needs are spelled out below. */

typedef struct { int signo, errno_, code; } siginfo_head;
typedef void (*action_fn)(int, siginfo_head *, void *);
struct i386_sigaction {
    action_fn action;
    unsigned long mask[32];
    int flags;
    void (*restorer)(void);
};

enum { SA_SIGINFO_ = 4, SI_KERNEL_ = 0x80, NSIG_ = 65 };
enum { SIGILL_ = 4, SIGTRAP_ = 5, SIGBUS_ = 7, SIGFPE_ = 8, SIGSEGV_ = 11 };
/* ucontext: flags, link, stack (3 words), then gregs; REG_TRAPNO is 12. */
enum { TRAPNO_WORD = 5 + 12 };

extern void *dlsym(void *, const char *);
#define RTLD_NEXT_ ((void *)-1l)

static action_fn user_action[NSIG_];

static int trap_number(const siginfo_head *si)
{
    switch (si->signo) {
    case SIGSEGV_: return si->code == SI_KERNEL_ ? 13 : 14;
    case SIGFPE_:
        if (si->code == 1) return 0;       /* FPE_INTDIV */
        if (si->code == 2) return 4;       /* FPE_INTOVF */
        return 16;
    case SIGILL_: return 6;
    case SIGBUS_: return 17;
    case SIGTRAP_: return (si->code == 1 || si->code == SI_KERNEL_) ? 3 : 1;
    }
    return -1;
}

static void trampoline(int sig, siginfo_head *si, void *uc)
{
    int trap = trap_number(si);
    if (trap >= 0 && uc) ((int *)uc)[TRAPNO_WORD] = trap;
    user_action[sig](sig, si, uc);
}

static int wrapped(int sig)
{
    return sig == SIGILL_ || sig == SIGTRAP_ || sig == SIGBUS_ || sig == SIGFPE_ || sig == SIGSEGV_;
}

int sigaction(int sig, const struct i386_sigaction *act, struct i386_sigaction *old)
{
    static int (*real)(int, const struct i386_sigaction *, struct i386_sigaction *);
    if (!real) real = (int (*)(int, const struct i386_sigaction *, struct i386_sigaction *))
                          dlsym(RTLD_NEXT_, "sigaction");
    struct i386_sigaction mine;
    action_fn previous = (sig > 0 && sig < NSIG_) ? user_action[sig] : 0;
    if (act && sig > 0 && sig < NSIG_ && wrapped(sig) && (act->flags & SA_SIGINFO_) &&
        (unsigned long)act->action > 1) {
        mine = *act;
        user_action[sig] = act->action;
        mine.action = trampoline;
        act = &mine;
    }
    int rc = real(sig, act, old);
    if (rc == 0 && old && old->action == trampoline) old->action = previous;
    return rc;
}
