// The log, written through an interpreter made of fakes and to real pipes.
#include "dprintf.h"

#include <fcntl.h>
#include <unistd.h>

#include "fake_python.h"

namespace {

class DPrintf : public FakePython {};
class Sinks : public FakePython {};
class NativeLog : public FakePython {};
class LogArguments : public FakePython {};

// The reading end keeps what was written to the other.
class tPipe {
public:
    tPipe() {
        EXPECT_EQ(0, pipe(ends_));
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    }
    ~tPipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    int writer() const { return ends_[1]; }
    std::string text() const {
        char buffer[20000];
        const ssize_t size = read(ends_[0], buffer, sizeof(buffer));
        return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : "";
    }

private:
    int ends_[2] = {-1, -1};
};

// Masks and the master switch.

TEST_F(DPrintf, CategoriesHaveTheirBits) {
    EXPECT_EQ(1, kLogOther);
    EXPECT_EQ(2, kLogFilenames);
    EXPECT_EQ(4, kLogCore);
    EXPECT_EQ(8, kLogBreakpoints);
    EXPECT_EQ(16, kLogExceptions);
    EXPECT_EQ(32, kLogIO);
    EXPECT_EQ(64, kLogInternalFailures);
    EXPECT_EQ(128, kLogThreading);
    EXPECT_EQ(256, kLogInitialMonitoringCallbacks);
    EXPECT_EQ(512, kLogSecondMonitoringCallbacks);
    EXPECT_EQ(84, kDefaultLogMask);
}

TEST_F(DPrintf, DefaultMaskDropsFilenamesAndWritesCore) {
    log_to_file();
    do_dprintf(kLogFilenames, "a name\n");
    EXPECT_EQ("", python_.written);
    do_dprintf(kLogCore, "core %d %s\n", 7, "x");
    EXPECT_EQ("core 7 x\n", python_.written);
    EXPECT_EQ(1, python_.flushes);
}

TEST_F(DPrintf, MaskAppliesAtOnceAndToTheSharedSet) {
    log_to_file();
    set_dprintf_mask(kLogFilenames);
    EXPECT_EQ(kLogFilenames, get_dprintf_mask());
    EXPECT_EQ(kLogFilenames, get_dp_data_mask(&gUnsafeGlobalDPData));
    do_dprintf(kLogCore, "core\n");
    do_dprintf(kLogFilenames, "names\n");
    EXPECT_EQ("names\n", python_.written);
}

TEST_F(DPrintf, DisabledCallEvaluatesNoArgument) {
    int evaluated = 0;
    DPRINTF(kLogCore, "%d\n", ++evaluated);
    EXPECT_EQ(0, evaluated);
    log_to_file();
    DPRINTF(kLogCore, "%d\n", ++evaluated);
    EXPECT_EQ(1, evaluated);
    EXPECT_EQ("1\n", python_.written);
}

TEST_F(DPrintf, NoneAsFileSwitchesOffWhateverTheDescriptor) {
    tFake* const file = log_to_file();
    EXPECT_EQ(3, file->refcnt);  // the global, the shared sink and the test
    set_dprintf_file(python_.none, 2, nullptr);
    EXPECT_EQ(nullptr, gDPrintfFile);
    EXPECT_EQ(-1, gDPrintfNativeFileno);
    EXPECT_EQ(2, gUnsafeGlobalDPData.shared_single_dp_data.fileno);
    EXPECT_EQ(1, file->refcnt);
    do_dprintf(kLogCore, "core\n");
    EXPECT_EQ("", python_.written);
}

TEST_F(DPrintf, FileIsHeldAndDescriptorStored) {
    tFake* const file = python_.make(python_.other_type, "file");
    set_dprintf_file(file, 5, reinterpret_cast<void*>(9));
    EXPECT_EQ(file, gDPrintfFile);
    EXPECT_EQ(5, gDPrintfNativeFileno);
    EXPECT_EQ(reinterpret_cast<void*>(9), gUnsafeGlobalDPData.shared_single_dp_data.win32_handle);
    set_dprintf_file(file, 5, nullptr);  // the same again must not drop the last reference
    EXPECT_EQ(3, file->refcnt);
    EXPECT_FALSE(file->is_dead);
}

// What a line leaves alone.

TEST_F(DPrintf, PendingExceptionStaysTheSame) {
    log_to_file();
    python_.raise("KeyError");
    PyObject* const pending = python_.error[0];
    python_.on_write = [] {
        EXPECT_EQ(nullptr, fake->error[0]) << "no call with an error pending";
    };
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(pending, python_.error[0]);
    EXPECT_EQ(1, as_fake(pending)->refcnt);
}

TEST_F(DPrintf, FailuresOfTheFileAreSwallowed) {
    log_to_file();
    python_.fail_write = true;
    python_.fail_flush = true;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ("", python_.pending());
    python_.raise("KeyError");
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ("KeyError", python_.pending());
    EXPECT_EQ(2, python_.flushes);
}

TEST_F(DPrintf, ErrnoStaysTheSame) {
    log_to_file();
    python_.on_write = [] { errno = EBADF; };
    errno = EINTR;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(EINTR, errno);
}

TEST_F(DPrintf, TracingIsOffWhileTheFileIsWritten) {
    log_to_file();
    int tracing = -1;
    python_.on_write = [&] { tracing = python_.thread_state.tracing; };
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(1, tracing);
    EXPECT_EQ(0, python_.thread_state.tracing);
}

TEST_F(DPrintf, LineInsideALineIsLost) {
    log_to_file();
    python_.on_write = [] { do_dprintf(kLogCore, "inner\n"); };
    do_dprintf(kLogCore, "outer\n");
    EXPECT_EQ("outer\n", python_.written);
    EXPECT_EQ(1, python_.enters);
    EXPECT_EQ(0, gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count);
}

TEST_F(DPrintf, NothingIsWrittenWithoutAThreadState) {
    log_to_file();
    python_.current = nullptr;
    do_dprintf(kLogCore, "line\n");
    do_dlogexception();
    do_dprintf_repr(kLogCore, "", python_.none, "");
    EXPECT_EQ("", python_.written);
    EXPECT_EQ(0, python_.enters);
    EXPECT_EQ(0, python_.repr_calls);
}

TEST_F(DPrintf, FileSetFromInsideALineOutlivesTheLine) {
    tFake* const file = log_to_file();
    --file->refcnt;  // the log holds the only references
    python_.on_write = [&] {
        set_dprintf_file(nullptr, -1, nullptr);
        EXPECT_FALSE(file->is_dead);
    };
    do_dprintf(kLogCore, "line\n");
    EXPECT_TRUE(file->is_dead);
    EXPECT_EQ(1, python_.flushes);
}

// Building the text.

TEST_F(DPrintf, UnformattableLineSaysSo) {
    log_to_file();
    python_.fail_format = true;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ("DPRINTF error: exception while formatting string\n", python_.written);
    python_.fail_strings = 1;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(
        "DPRINTF error: exception while formatting string\n"
        "DPRINTF error: unable to create output string\n",
        python_.written);
    EXPECT_EQ("", python_.pending());
}

TEST_F(DPrintf, WithoutAnyTextNothingIsWritten) {
    log_to_file();
    python_.fail_format = true;
    python_.fail_strings = 2;
    python_.raise("KeyError");
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ("", python_.written);
    EXPECT_EQ("KeyError", python_.pending());
    EXPECT_EQ(0, gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count);
}

TEST_F(DPrintf, MissingFormatterIsSaidAndMissingBothIsSilence) {
    log_to_file();
    gPy.PyUnicode_FromFormatV = nullptr;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ("DPRINTF error: PyUnicode_FromFormatV is NULL\n", python_.written);
    gPy.PyUnicode_FromString = nullptr;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ("DPRINTF error: PyUnicode_FromFormatV is NULL\n", python_.written);
}

TEST_F(DPrintf, ByteStringsOnPython2) {
    set_version(2, 7);
    gPy.PyUnicode_FromFormatV = nullptr;
    log_to_file();
    do_dprintf(kLogCore, "line %s\n", "two");
    EXPECT_EQ("line two\n", python_.written);
}

// Exceptions.

TEST_F(DPrintf, ExceptionGoesToTheFileThroughStderrAndStaysPending) {
    tFake* const file = log_to_file();
    tFake* const old_stderr = python_.make(python_.other_type, "terminal");
    python_.sys["stderr"] = old_stderr;
    python_.raise("KeyError");
    do_dlogexception();
    EXPECT_EQ("log file:KeyError;", python_.displayed);
    EXPECT_EQ("", python_.written) << "the header meets the guard of the shared sink";
    EXPECT_EQ("KeyError", python_.pending());
    EXPECT_EQ(old_stderr, python_.sys["stderr"]);
    EXPECT_EQ(1, old_stderr->refcnt);
    EXPECT_EQ(3, file->refcnt);
    EXPECT_EQ(0, python_.thread_state.tracing);
}

TEST_F(DPrintf, NoExceptionNoOutput) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    do_dlogexception();
    EXPECT_EQ("", python_.displayed);
    EXPECT_EQ(0, python_.enters);
}

TEST_F(DPrintf, ExceptionIsNotLoggedTwoDeepInTracing) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    python_.raise("KeyError");
    python_.thread_state.tracing = 2;
    do_dlogexception();
    EXPECT_EQ("", python_.displayed);
    python_.thread_state.tracing = 1;
    do_dlogexception();
    EXPECT_EQ("log file:KeyError;", python_.displayed);
}

TEST_F(DPrintf, SilentAfterAnExceptionWithoutStderr) {
    for (tFake* const no_stderr : {python_.none, static_cast<tFake*>(nullptr)}) {
        init_dp_data(&gUnsafeGlobalDPData, 1);
        log_to_file();
        python_.written.clear();
        if (no_stderr != nullptr) {
            python_.sys["stderr"] = no_stderr;
        } else {
            python_.sys.clear();
        }
        python_.raise("KeyError");
        do_dlogexception();
        EXPECT_EQ("", python_.displayed);
        EXPECT_EQ("KeyError", python_.pending());
        EXPECT_EQ(0, python_.thread_state.tracing);
        EXPECT_EQ(1, gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count);
        do_dprintf(kLogCore, "line\n");
        EXPECT_EQ("", python_.written);
    }
}

TEST_F(DPrintf, OtherSinkGetsTheHeader) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    tDPData* const dp = create_dp_data();
    set_dp_data_file_obj(dp, python_.make(python_.other_type, "own file"), -1, nullptr);
    python_.raise("KeyError");
    do_dp_logexception(dp->internal_failures);
    EXPECT_EQ("own file:KeyError;", python_.displayed);
    EXPECT_EQ("EXCEPTION IN DEBUG TRACER:\n", python_.written);
    EXPECT_EQ("KeyError", python_.pending());
    EXPECT_EQ(0, dp->shared_single_dp_data.in_dprint_count);
    free_dp_data(dp);
}

TEST_F(DPrintf, FailureIsALineAndTheExceptionThenCleared) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    python_.raise("KeyError");
    log_failure_keep_error("50% did not work\n");
    EXPECT_EQ("50% did not work\n", python_.written);
    EXPECT_EQ("log file:KeyError;", python_.displayed);
    EXPECT_EQ("KeyError", python_.pending());
    log_failure("again\n");
    EXPECT_EQ("", python_.pending());
}

// Reprs.

TEST_F(DPrintf, ReprIsCalledButNeverWritten) {
    log_to_file();
    python_.raise("KeyError");
    do_dprintf_repr(kLogCore, "prefix ", python_.none, "\n");
    EXPECT_EQ(1, python_.repr_calls);
    EXPECT_EQ("", python_.written);
    python_.no_repr = true;
    do_dprintf_repr(kLogCore, "prefix ", python_.none, "\n");
    EXPECT_EQ(2, python_.repr_calls);
    EXPECT_EQ("", python_.written);
    EXPECT_EQ("KeyError", python_.pending());
    EXPECT_EQ(0, gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count);
    do_dprintf_repr(kLogFilenames, "prefix ", python_.none, "\n");
    EXPECT_EQ(2, python_.repr_calls) << "not in the mask";
}

TEST_F(LogArguments, TwoReprsAtOnce) {
    log_to_file();
    const char* const first = get_dprintf_repr_str1(nullptr, python_.none);
    const char* const second = get_dprintf_repr_str2(&gUnsafeGlobalDPData, python_.true_);
    EXPECT_STREQ("<None>", first);
    EXPECT_STREQ("<True>", second);
}

TEST_F(LogArguments, ReprIsCutAt4000) {
    tFake* const obj = python_.make(python_.other_type, std::string(9000, 'x'));
    EXPECT_EQ(4000u, strlen(get_dprintf_repr_str1(nullptr, obj)));
}

TEST_F(LogArguments, ReprThatFailsIsReplacedAndTheErrorKept) {
    python_.no_repr = true;
    python_.raise("KeyError");
    EXPECT_STREQ("exception getting repr in fill_str_with_repr()",
                 get_dprintf_repr_str1(nullptr, python_.none));
    EXPECT_EQ("KeyError", python_.pending());
    EXPECT_EQ(0, python_.thread_state.tracing);
}

TEST_F(LogArguments, ReprNeedsAThreadStateAndNoLineInProgress) {
    gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count = 1;
    EXPECT_STREQ("fill_str_with_repr() failed: in_dprint_count is not 0",
                 get_dprintf_repr_str1(nullptr, python_.none));
    gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count = 0;
    python_.current = nullptr;
    EXPECT_STREQ("fill_str_with_repr() failed: tstate is NULL",
                 get_dprintf_repr_str1(nullptr, python_.none));
}

TEST_F(LogArguments, ReprWithoutBufferHasAFixedText) {
    tDPData* const dp = create_dp_data();
    clear_dp_data(dp);
    EXPECT_STREQ("get_dprintf_repr_str1() failure: _repr_str1 is NULL",
                 get_dprintf_repr_str1(dp, python_.none));
    EXPECT_STREQ("<error generating repr: no buffer available>",
                 get_dprintf_repr_str2(dp, python_.none));
    free_dp_data(dp);
}

TEST_F(LogArguments, CheckedStrings) {
    EXPECT_STREQ("(NULL)", dprint_check_str(nullptr));
    EXPECT_STREQ("caf\xc3\xa9", dprint_check_str("caf\xc3\xa9")) << "no file, no look";
    log_to_file();
    EXPECT_STREQ("(non-ascii string)", dprint_check_str("caf\xc3\xa9"));
    EXPECT_STREQ("\x7f", dprint_check_str("\x7f"));
}

TEST_F(LogArguments, CheckedObjects) {
    log_to_file();
    EXPECT_STREQ("(NULL PyObject*)", dprint_check_pystr(nullptr));
    EXPECT_STREQ("text", dprint_check_pystr(python_.str("text")));
    EXPECT_STREQ("bytes", dprint_check_pystr(python_.make(python_.bytes_type, "bytes")));
    EXPECT_STREQ("(non-PyString PyObject*)", dprint_check_pystr(python_.num(1)));
    EXPECT_STREQ("(non-ascii string)", dprint_check_pystr(python_.str("\xff")));
    tFake* const subtype = python_.make(python_.type_type, "my str");
    subtype->attrs["base"] = python_.str_type;
    EXPECT_STREQ("mine", dprint_check_pystr(python_.make(subtype, "mine")));
}

TEST_F(LogArguments, UnencodableObjectKeepsThePendingError) {
    python_.raise("KeyError");
    EXPECT_STREQ("(NULL)", dprint_check_pystr(python_.str("unencodable")));
    EXPECT_EQ("KeyError", python_.pending());
}

// Frame descriptions.

class FrameText : public FakePython {
protected:
    PyFrameObject* make_frame(const std::string& name, const std::string& filename) {
        tFake* const frame = python_.make(python_.frame_type, "frame");
        code_ = python_.make(python_.other_type, "code");
        code_->attrs["co_name"] = python_.str(name);
        code_->attrs["co_filename"] = python_.str(filename);
        code_->attrs["co_firstlineno"] = python_.num(10);
        frame->attrs["f_code"] = code_;
        python_.line_number = 12;
        PyObject* const obj = frame;
        return static_cast<PyFrameObject*>(obj);
    }
    tFake* code_ = nullptr;
};

TEST_F(FrameText, SaysLineNameFileAndFirstLine) {
    EXPECT_STREQ("line 12 of handler (/srv/app/views.py: 10)",
                 get_dprintf_frame_str1(make_frame("handler", "/srv/app/views.py")));
    EXPECT_EQ(1, code_->refcnt);
    EXPECT_EQ(1, code_->attrs["co_filename"]->refcnt);
}

TEST_F(FrameText, NullFrameAndNullCode) {
    EXPECT_STREQ("<NULL>", get_dprintf_frame_str1(nullptr));
    PyFrameObject* const frame = make_frame("a", "b");
    PyObject* const obj = frame;
    as_fake(obj)->attrs["f_code"] = nullptr;
    EXPECT_STREQ("line 12 of <NULL>", get_dprintf_frame_str1(frame));
}

TEST_F(FrameText, NeverLongerThan4000) {
    const char* const text = get_dprintf_frame_str1(make_frame("f", std::string(9000, 'x')));
    EXPECT_EQ(4000u, strlen(text));
    EXPECT_EQ(0, strncmp(text, "line 12 of f (xxxx", 18));
}

TEST_F(FrameText, CodeWithoutNameIsAFailureAndThePendingErrorStays) {
    log_to_file();
    python_.sys["stderr"] = python_.make(python_.other_type, "terminal");
    PyFrameObject* const frame = make_frame("f", "file");
    code_->attrs.erase("co_filename");
    python_.raise("KeyError");
    EXPECT_STREQ("line 12 of ", get_dprintf_frame_str1(frame));
    EXPECT_NE(std::string::npos, python_.written.find("Failure in append_code_static_str()\n"));
    EXPECT_EQ("KeyError", python_.pending());
}

// Sinks.

TEST_F(Sinks, NewSetIsOffAndHasItsBuffers) {
    tDPData* const dp = create_dp_data();
    ASSERT_NE(nullptr, dp);
    EXPECT_EQ(1, dp->initialized);
    EXPECT_EQ(84, get_dp_data_mask(dp));
    EXPECT_EQ(1, dp->shared_single_dp_data.initialized);
    EXPECT_EQ(-1, dp->shared_single_dp_data.fileno);
    EXPECT_EQ(nullptr, dp->core);
    EXPECT_EQ(nullptr, dp->internal_failures);
    EXPECT_STREQ("", dp->_repr_str1);
    EXPECT_STREQ("", dp->_repr_str2);
    EXPECT_FALSE(valid_dp_py_file(dp));
    EXPECT_FALSE(valid_dp_native_file(dp));
    free_dp_data(dp);
    free_dp_data(nullptr);
}

TEST_F(Sinks, CategoryPointersFollowMaskAndValidity) {
    tDPData* const dp = create_dp_data();
    tSingleDPData* const sink = &dp->shared_single_dp_data;
    set_dp_data_file_obj(dp, nullptr, 7, nullptr);
    EXPECT_TRUE(valid_dp_native_file(dp));
    EXPECT_EQ(sink, dp->core);
    EXPECT_EQ(sink, dp->internal_failures);
    EXPECT_EQ(nullptr, dp->filenames);
    set_dp_data_mask(dp, static_cast<tDPrintfLogMask>(2 | 128 | 256 | 512));
    EXPECT_EQ(nullptr, dp->core);
    EXPECT_EQ(nullptr, dp->internal_failures);
    EXPECT_EQ(sink, dp->filenames);
    EXPECT_EQ(sink, dp->threading);
    EXPECT_EQ(sink, dp->initial_monitoring_callbacks);
    EXPECT_EQ(sink, dp->second_monitoring_callbacks);
    set_dp_data_file_obj(dp, python_.none, -1, nullptr);
    EXPECT_FALSE(valid_dp_py_file(dp));
    EXPECT_EQ(nullptr, dp->filenames);
    EXPECT_EQ(nullptr, dp->second_monitoring_callbacks);
    free_dp_data(dp);
}

TEST_F(Sinks, FileIsOwnedUntilClearedOrReplaced) {
    tFake* const file = python_.make(python_.other_type, "file");
    tDPData* const dp = create_dp_data();
    set_dp_data_file_obj(dp, file, -1, nullptr);
    EXPECT_EQ(2, file->refcnt);
    init_dp_data(dp, 0);
    EXPECT_EQ(file, dp->shared_single_dp_data.file_obj) << "already initialised";
    set_dp_data_file_obj(dp, file, -1, nullptr);
    EXPECT_EQ(2, file->refcnt);
    init_dp_data(dp, 1);
    EXPECT_EQ(1, file->refcnt);
    EXPECT_EQ(nullptr, dp->shared_single_dp_data.file_obj);
    set_dp_data_file_obj(dp, file, 3, nullptr);
    clear_dp_data(dp);
    EXPECT_EQ(1, file->refcnt);
    EXPECT_EQ(-1, dp->shared_single_dp_data.fileno);
    EXPECT_EQ(nullptr, dp->core);
    EXPECT_EQ(nullptr, dp->_repr_str1);
    free_dp_data(dp);
}

TEST_F(Sinks, LineGoesToTheSinksFileAndNullIsNothing) {
    tDPData* const dp = create_dp_data();
    set_dp_data_file_obj(dp, python_.make(python_.other_type, "own"), -1, nullptr);
    do_dp(dp->core, "to %s\n", "sink");
    do_dp(dp->filenames, "off\n");
    do_dp(nullptr, "nothing\n");
    EXPECT_EQ("to sink\n", python_.written);
    EXPECT_EQ(0, dp->shared_single_dp_data.in_dprint_count);
    free_dp_data(dp);
}

TEST_F(Sinks, GuardIsPerSink) {
    log_to_file();
    tDPData* const dp = create_dp_data();
    set_dp_data_file_obj(dp, python_.make(python_.other_type, "own"), -1, nullptr);
    int depth = 0;
    python_.on_write = [&] {
        if (++depth == 1) {
            do_dp(dp->core, "same sink\n");
            do_dprintf(kLogCore, "shared\n");
        }
    };
    do_dp(dp->core, "own\n");
    EXPECT_EQ("shared\nown\n", python_.written);
    free_dp_data(dp);
}

// Native output.

TEST_F(NativeLog, PlainTextNeedsMaskAndDescriptor) {
    tPipe out;
    python_.current = nullptr;
    dprint_no_tstate(kLogCore, "no descriptor\n");
    gDPrintfNativeFileno = out.writer();
    dprint_no_tstate(kLogFilenames, "not in mask\n");
    dprint_no_tstate(kLogCore, "100% plain\n");
    EXPECT_EQ("100% plain\n", out.text());
}

TEST_F(NativeLog, SinkWritesFormattedText) {
    tPipe out;
    tDPData* const dp = create_dp_data();
    set_dp_data_file_obj(dp, nullptr, out.writer(), nullptr);
    python_.current = nullptr;
    dp->shared_single_dp_data.in_dprint_count = 1;  // the guard is not looked at
    do_dp_no_py(dp->core, "%s = %08x\n", "word", 0xbeefu);
    do_dp_no_py(dp->filenames, "off\n");
    EXPECT_EQ(4, write_str_to_native_file(dp->core, "abc\n"));
    EXPECT_EQ("word = 0000beef\nabc\n", out.text());
    free_dp_data(dp);
}

TEST_F(NativeLog, InvalidSinksWriteNothing) {
    EXPECT_EQ(0, write_str_to_native_file(nullptr, "abc"));
    tDPData* const dp = create_dp_data();
    EXPECT_EQ(0, write_str_to_native_file(&dp->shared_single_dp_data, "abc"));
    set_dp_data_file_obj(dp, nullptr, 1000000, nullptr);  // no such descriptor
    errno = EINTR;
    EXPECT_EQ(0, write_str_to_native_file(&dp->shared_single_dp_data, "abc"));
    EXPECT_EQ(EINTR, errno);
    free_dp_data(dp);
}

}  // namespace
