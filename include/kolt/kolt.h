/*
 * kolt.h - C interface of libkolt, the driver library of the KOLT KL560T41
 * bank-counter peripheral (IC-card reader with PSAM slots, magnetic-stripe
 * reader/writer, identity-card reader, fingerprint sensor, LEDs, buzzer).
 *
 * Valid C (C99 and later) and C++. Every function returns its result as an
 * integer unless noted; buffers belong to the caller. Texts handed back are
 * GBK; hexadecimal text is upper case unless a function says otherwise.
 * The library keeps process-wide state (the link, the log switch and the
 * card working state): call it from one thread at a time, except for
 * setting cancelOperation from another thread.
 *
 * Each exported declaration sits on one line beginning with KOLT_API; the
 * build derives the library's export list from these lines.
 */
#ifndef KOLT_KOLT_H
#define KOLT_KOLT_H

#include <stddef.h>
#include <stdint.h>

#if defined(KOLT_BUILDING_LIBRARY)
#define KOLT_API __attribute__((visibility("default")))
#else
#define KOLT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================
 * Result codes
 * ==================================================================== */
#define OK                              0      /* success */
#define Lenth_Error                     (-1)   /* no reply, or a reply too short */
#define Revdata_Error                   (-2)   /* received data error (check byte) */
#define Para_Error                      (-3)   /* bad parameter */
#define Unknow_Error                    0x100  /* device status that maps to nothing else */

#define ICC_Contact_Not_Support         0x1001 /* contact reader not supported */
#define ICC_Contact_Not_Insert          0x1002 /* no card in the contact slot */
#define ICC_Contact_Powered             0x1003 /* contact card already powered */
#define ICC_Contact_Not_Powered         0x1004 /* contact card not powered */
#define ICC_Contact_Poweron_Failed      0x1005 /* contact card power-on failed */
#define ICC_No_Response                 0x1006 /* card does not answer (contact or contactless) */
#define ICC_Data_Error                  0x1007 /* card data error (contact or contactless) */

#define PSAM_Not_Supported              0x2001 /* PSAM slot not supported */
#define PSAM_Not_Powered                0x2004 /* PSAM not powered */
#define PSAM_Poweron_Failed             0x2005 /* PSAM power-on failed */
#define PSAM_No_Response                0x2006 /* PSAM does not answer */
#define PSAM_Data_Error                 0x2007 /* PSAM data error */

#define ICC_Contactless_Not_Support     0x3001 /* contactless reader not supported */
#define ICC_Contactless_Not_Activated   0x3004 /* contactless card not activated */
#define ICC_Contactless_Startup_Error   0x3005 /* defined for applications; the device mapping never gives it */
#define ICC_Contactless_Enter_Timeout   0x3006 /* defined for applications; the device mapping never gives it */
#define ICC_Contactless_More_Enter      0x3009 /* defined for applications; the device mapping never gives it */

#define MC_Read_Timeout                 0x9001 /* magnetic stripe read time-out */

#define APDU_OK                                        0x9000 /* card status word: success */
#define APDU_ERROR                                     (-1)   /* card exchange failed */
#define APDU_Sendback_Data_Error                       0x6281 /* part of the returned data may be corrupted */
#define APDU_Read_Datalen_Less_Le                      0x6282 /* end of file reached before Le bytes */
#define APDU_App_Locked                                0x6283 /* selected application is blocked */
#define APUD_External_Authenticate_Error               0x6300 /* external authentication failed */
#define APDU_No_Specific_Problem                       0x6400 /* execution error, no precise diagnosis */
#define APDU_Memory_Error                              0x6581 /* memory failure */
#define APDU_Lc_Length_Error                           0x6700 /* wrong length */
#define APDU_Not_Support_LogicalChannel_Or_Not_Active  0x6881 /* logical channel not supported */
#define APDU_Not_Satisfy_Safety_Conditions             0x6982 /* security status not satisfied */
#define APDU_Not_Satisfy_Use_Conditions                0x6985 /* conditions of use not satisfied */
#define APDU_Not_Satisfy_Cmd_Excute_Conditions         0x6986 /* command not allowed */
#define APDU_Cmd_Data_Error                            0x6A80 /* incorrect data field */
#define APDU_Function_Not_Support                      0x6A81 /* function not supported */
#define APDU_ApplicationOrFile_Not_Found               0x6A82 /* application or file not found */
#define APDU_Readed_LastRecord                         0x6A83 /* record not found (read past the last) */
#define APDU_P1P2_Error                                0x6A86 /* incorrect P1 P2 */
#define APDU_Reference_Data_Not_Found                  0x6A88 /* referenced data not found */
#define APDU_Offset_Address_Error                      0x6B00 /* wrong offset */
#define APDU_INS_Error                                 0x6D00 /* instruction not supported */
#define APDU_CLA_Error                                 0x6E00 /* class not supported */
#define APDU_No_Precise_Diagnosis                      0x6F00 /* no precise diagnosis */
#define APDU_Application_Permanent_locked_             0x0903 /* application permanently locked (value as the device firmware defines it) */

/* ======================================================================
 * Constants
 * ==================================================================== */
#define LED_IC          1  /* LED of the contact card reader */
#define LED_MC          2  /* LED of the magnetic stripe reader */
#define LED_RF          3  /* LED of the contactless reader */
#define LED_FP          4  /* LED of the fingerprint sensor */
#define LED_Color_G     0  /* green */
#define LED_Color_R     1  /* red */
#define LED_Color_y     2  /* yellow */
#define LED_Lightout    0  /* switch the LED off */
#define LED_Light       1  /* switch the LED on */
#define LED_Flicker     2  /* let the LED blink */

#define SLOT_0_K300     0x01 /* contact card slot */
#define SLOT_5_K200     0x02 /* second contact card slot (auto mode as a power-on argument) */
#define SLOT_1_SIM300   0x14 /* PSAM holder 1 */
#define SLOT_2_SIM200   0x11 /* PSAM holder 2 */
#define SLOT_3_SIM201   0x12 /* PSAM holder 3 */
#define SLOT_4_SIM202   0x13 /* PSAM holder 4 */
#define SLOT_MC         0xFE /* magnetic stripe */
#define SLOT_RF         0xFF /* contactless */

/* ======================================================================
 * Exported globals
 * ==================================================================== */
KOLT_API extern char gPortName[32];              /* device name below "/dev/" that the link opens, e.g. "ttyS0" or "pts/3" */
KOLT_API extern volatile int32_t cancelOperation; /* set to 1 from another thread to abandon a waiting stripe read or write */

/* ======================================================================
 * Support: Base64 (in place)
 * ==================================================================== */
KOLT_API int32_t KOLT_Base64(uint8_t *buf, int32_t len);   /* encodes len bytes in place; returns (len+2)/3*4; buf needs that room plus one */
KOLT_API int32_t KOLT_UnBase64(uint8_t *buf, int32_t len); /* decodes len characters in place (pads unpadded text); returns the byte count, 0 when len%4 == 1 */

/* ======================================================================
 * Support: hex, BCD and string helpers
 * ==================================================================== */
KOLT_API uint32_t KOLT_hexstrtoint(const char *text, int32_t n);                    /* value of the first n hex characters (0x30..0x3A count 0..10) */
KOLT_API int32_t KOLT_hexstrtointBuf(const char *text, uint8_t *out);               /* hex text to bytes, pair by pair; "ABC" gives AB C0; out needs max(8, (strlen + 1) / 2) bytes; returns 0 */
KOLT_API int32_t KOLT_hexStrToIntStr(const char *text, uint8_t *out);               /* hex text to bytes; out needs strlen(text) bytes; returns strlen(text)/2 */
KOLT_API int32_t BCDBuf2HexCharBuf(const uint8_t *bytes, int32_t n, char *out);     /* n bytes to 2n upper-case hex digits and a terminator; returns 2n */
KOLT_API int32_t KOLT_buf2HexStrBuf(char *out, int32_t n, uint8_t *bytes);          /* n bytes to 2n lower-case hex digits (no terminator); upper-cases the source bytes; returns 2n */
KOLT_API int32_t Decimal2BCDBuf(int32_t value, uint8_t *out, int32_t width);        /* decimal value packed right-aligned into width BCD bytes; -1 when it does not fit */
KOLT_API int32_t byteBuf2BCDBuf(const char *digits, int32_t n, uint8_t *out, int32_t width); /* n digit characters packed right-aligned into width bytes; -1 when too long */
KOLT_API int32_t KOLT_atoiLen(const char *text, int32_t n);                         /* decimal value of the first n characters */
KOLT_API char *KOLT_itoa(uint64_t value, char *out, int32_t base);                  /* value in base (lower-case letters) into out; base 0 gives "0" */
KOLT_API int32_t KOLT_strpos(const char *needle, const char *haystack);             /* index of needle in haystack; -1 absent, -2 empty needle, -3 empty haystack */
KOLT_API int32_t KOLT_SubBufPos(const uint8_t *needle, int32_t needleLen, const uint8_t *buffer, int32_t bufferLen); /* index of a byte run; -1 absent, -2 needleLen < 1, -3 buffer too short */
KOLT_API int32_t KOLT_GetSubStr(const char *text, char *out, char separator, int32_t k); /* k-th field (from 1) of text into out; returns its start index, 0 for the last field */
KOLT_API int32_t KOLT_strreplace(const char *from, const char *to, char *text);     /* replaces every from by to in text (at most 1023 characters); returns 0 */
KOLT_API int32_t KOLT_isNum(const uint8_t *bytes, int32_t n);                       /* 0 when all n bytes are decimal digits, else -1 */
KOLT_API int32_t KOLT_CharIsNum(uint8_t c);                                         /* 0 for a decimal digit, else -1 */
KOLT_API int32_t KOLT_GetRandByte(uint8_t *out, int32_t n);                         /* n pseudo-random bytes, seeded from the time in seconds; returns n */
KOLT_API int32_t KOLT_getFileSize(const char *path);                                /* file size in bytes, -1 when it cannot be opened */
KOLT_API int32_t KOLT_copyfile(const char *destination, const char *source);        /* copies a file; -1 no source, -2 destination not created */
KOLT_API int32_t KOLT_readFile2Buf(const char *path, uint8_t *buffer, int32_t n);   /* reads up to n bytes; returns n; -1 when it cannot be opened */
KOLT_API int32_t KOLT_readFileToBuf(const char *path, uint8_t *buffer);             /* reads the whole file (caller gives room); returns its size; -1 on failure */
KOLT_API int32_t KOLT_writeBuf2File(const char *path, const uint8_t *buffer, int32_t n); /* creates path with n bytes; -1 when it exists or the write fails */

/* ======================================================================
 * Support: TLV codec (items point into the caller's source buffer)
 * ==================================================================== */
typedef struct tlv_field_t {
    uint32_t size;       /* number of bytes */
    const uint8_t *data; /* first byte in the source; NULL for an empty value */
} tlv_field_t;

typedef struct tlv_t {
    tlv_field_t tag;     /* tag: 1 or 2 bytes */
    tlv_field_t val;     /* value */
} tlv_t;

KOLT_API int32_t parse_tlv_tag(tlv_t *item, const uint8_t *src);                    /* fills item->tag (two bytes when the low five bits are all set); returns 0 */
KOLT_API int32_t parse_tlv_length(tlv_field_t *val, const uint8_t *p);              /* decodes the length at p into val; 0, or -1 for a length byte 0x80 or 0x84..0xFF */
KOLT_API int32_t tlv_parser(tlv_t *item, const uint8_t *src, int32_t avail);        /* one item; 0 when tag, length and value fit in avail bytes, else -1 */
KOLT_API int32_t count_tlv_substring(const uint8_t *src, int32_t size, int32_t strict); /* items that tile src; a bad item gives -1 (strict == 1) or the count so far */
KOLT_API int32_t unpack_tlv_data(tlv_t **list, const uint8_t *src, int32_t size, int32_t strict); /* allocates *list (caller frees); n, -1 count failed, -2 no memory, -3 second pass failed */
KOLT_API int32_t parse_tlv_data_t(const uint8_t **out, const char *tag, const uint8_t *src, int32_t size); /* value length of the first top-level tag; -2 absent, -1 malformed */
KOLT_API int32_t parse_tlv_data(uint8_t *out, const char *tag, const uint8_t *src, int32_t size); /* as parse_tlv_data_t, value copied to out; -1 on any failure */
KOLT_API int32_t parse_tlv_data_tmplt(uint8_t *out, const char *tag, const char *path, const uint8_t *src, int32_t size); /* tag inside the one-byte templates of path; -1 path, -3 absent, -2 empty */
KOLT_API int32_t pack_tlv_data(uint8_t *out, const char *tag, const uint8_t *value, uint32_t length); /* writes tag, length, value; -1 bad tag, -2 length 128 or above 0xFFFFFF */
KOLT_API void KOLT_TLV_debugWriteLog(const char *format, const void *data, int32_t len); /* trace hook of the codec; writes nothing */

/* ======================================================================
 * Support: logging
 * ==================================================================== */
KOLT_API void KOLT_debugWriteLogLen(const char *format, const void *data, int32_t len); /* one debug-log line when the log switch is on ("%s" "%d" "%02x" "%x" "%c") */
KOLT_API void KOLT_errorWriteLogLen(const char *format, const void *data, int32_t len); /* one error-log line (under the executable's KTLog directory) when the switch is on */
KOLT_API void KOLT_writeLog(const char *path, const char *format, const void *data, int32_t len); /* appends one timestamped line to path; rotates to path.bak above 10 MiB */
KOLT_API int32_t getNowYearMonth(char *out);                                        /* local time as "%Y%m"; returns 0 */
KOLT_API int32_t KOLT_getcurrenttime(char *out);                                    /* local time as "%Y%m%d%H%M%S"; returns 0 */
KOLT_API uint32_t GetTickCount(void);                                               /* milliseconds of the monotonic clock, truncated to 32 bits */
KOLT_API int32_t DeleteLogFilesOneMonthAgo(void);                                   /* removes everything under the executable's KTLog directory; returns 0 */
KOLT_API int32_t KOLT_InitLogDir(char *out);                                        /* "logdir" of $HOME/librun/koltt41fp.cfg into out, "/tmp" when missing; returns 0 */

/* ======================================================================
 * Support: configuration files and the library's own path
 * ==================================================================== */
KOLT_API char *GetIniKeyString(const char *section, const char *key, const char *path); /* value of key in [section] of an INI file, "" when absent (shared buffer) */
KOLT_API int32_t GetIniKeyInt(const char *section, const char *key, const char *path);  /* the value above read as a decimal integer (0 when absent) */
KOLT_API int32_t getsoPath(char *out);                                              /* directory of the loaded library with its trailing "/", "./" when unknown; returns 0 */
KOLT_API void funcGetsoPath(void);                                                  /* address marker used by getsoPath */
KOLT_API int32_t GetCurrentPath(char *out, const char *name);                       /* directory of the executable as invoked, followed by name; returns 0 */

/* ======================================================================
 * Device link: terminal command file "idcread.ext"
 * ==================================================================== */
/* Every output below receives at most 255 bytes and a terminator: give 256-byte buffers. */
KOLT_API int32_t KOLT_getTermCmdFromExtfile(const char *typeText, const char *portText, char *openOut, char *closeOut, char *lockOut, char *unlockOut, char *leadOut, char *endOut); /* count of OPEN_COM/CLOSE_COM entries of the section, 0 none, -1 no file */
KOLT_API int32_t KOLT_getTransferCmdFromExtfile(const char *typeText, const char *letter, char *out); /* OPEN_PORT<letter> of the pass-through section as bytes; 0, -2 absent, -1 no file */
KOLT_API int32_t KOLT_getValueFromStr(char *line, const char *key, char *out);       /* value after "key=" in line (line is edited; "%%" gives "%"); 0, or -1 when absent */
KOLT_API int32_t KOLT_getValueFromFile(const char *path, const char *key, char *out); /* value of the first "key=" line of a key=value file; 0, -2 absent, -1 no file */
KOLT_API int32_t getStrFirstChar(const char *text);                                 /* first character that is not a blank or a tab, or 0 */
KOLT_API int32_t convertStr2Bytebuf(const char *value, char *out);                  /* terminal-file value to bytes ("1B.." hex, else "\033" text); returns the byte count */

/* ---- KOLT-LINK-BEGIN (serial link, frames, result mapping) ---- */
/*
 * Room of the reply buffers of the frame calls (KOLT_writeBufAndReadFromT41,
 * KOLT_writeBufAndRead, KOLT_writeBufAndReadFrom100s) and of the identity-card
 * read: a reply is only as long as the device sends, and one whose length
 * field claims more than this is refused (-1) before anything is stored.
 * Buffers handed to these calls must hold KOLT_T41_REPLY_MAX bytes.
 */
#define KOLT_T41_REPLY_MAX 4096
/* Room of every escape-sequence and pass-through command buffer (openOut, closeOut, out of KOLT_getBPCommand). */
#define KOLT_SEQ_MAX 255

KOLT_API int32_t KOLT_DoTermType(int32_t termType);                                 /* public terminal type to internal: 1,4,5 -> 1; 2 -> 3; 3 -> 4; else 0 (local port) */
KOLT_API int32_t IC_initCom(int32_t termType, int32_t port);                        /* opens the link for a public terminal type; 0, or -21 */
KOLT_API int32_t IC_CloseCom(int32_t termType, int32_t port);                       /* closes the link opened by IC_initCom; 0 */
KOLT_API int32_t KOLT_initCom(int32_t type, const char *ttyName, int32_t port, const char *transfer); /* opens local port (type 0) or terminal aux port; 0, -2 open failed, -1 line setting failed */
KOLT_API int32_t KOLT_freeCom(int32_t type, int32_t port, const char *transfer);    /* closes the link; 0 */
KOLT_API int32_t KOLT_openComOrAux(const char *ttyName, const char *typeText, const char *portText, const char *transferType, const char *transferData); /* 0, -1 open failed, -2 sequence lookup or line setting failed */
KOLT_API int32_t KOLT_closeComOrAux(const char *typeText, const char *portText);    /* closes aux port (unlocks keyboard) or local port (only a descriptor the library opened); 0 */
KOLT_API int32_t KOLT_closeAux(const char *typeText, const char *portText);         /* writes the aux close sequence and restores the line (local: closes); 0 */
KOLT_API int32_t KOLT_connectDevice(const char *ttyName, const char *typeText, const char *portText, const char *transferTypeText, const char *transferPort); /* opens and greets the device (bracket frame 0x41); 0 or -1 */
KOLT_API int32_t KOLT_disconnectDevice(const char *typeText, const char *portText); /* says goodbye (bracket frame 0x42) and closes; 0 or -1 */
KOLT_API int32_t KOLT_getAuxCmdOnTermtypeAuxno(const char *typeText, const char *portText, char *openOut, char *closeOut); /* aux open/close sequences into KOLT_SEQ_MAX-byte buffers; 0, -1, -2 */
KOLT_API int32_t KOLT_getBPCommand(const char *typeText, const char *transferPort, char *out); /* pass-through command bytes into a KOLT_SEQ_MAX-byte buffer; 0, -1 (-2 file types) */
KOLT_API int32_t KOLT_openCom(int32_t port, int32_t baud);                          /* opens "/dev/"+gPortName raw: descriptor, -1 open failed, 0 port/baud not accepted */
KOLT_API int32_t KOLT_setTerm(void);                                                /* raw mode on the terminal line, settings saved; the descriptor or -1 */
KOLT_API int32_t KOLT_resetTerm(void);                                              /* restores the saved terminal settings; 0 or -1 */
KOLT_API int32_t KOLT_SendData(int32_t fd, const uint8_t *buf, int32_t len);        /* one plain write; its count */
KOLT_API int32_t KOLT_ReceiveData(int32_t fd, uint8_t *buf, int32_t len);           /* one read of what is there (0 when nothing); its count */
KOLT_API int32_t select_fd(int32_t fd, int32_t mode, double seconds);               /* waits readable (mode 1) / writable (mode 2) for whole seconds; ready count, 0, -1 */
KOLT_API int32_t KOLT_writeBuf(int32_t fd, const uint8_t *buf, int32_t len, int32_t timeoutSec); /* writes len bytes within the time-out; the count written */
KOLT_API int32_t KOLT_rcvBuf(int32_t fd, uint8_t *buf, int32_t len, int32_t timeoutSec); /* reads up to len bytes within the time-out; the count read */
KOLT_API int32_t KOLT_rcvBuf100s(int32_t fd, uint8_t *buf, int32_t len, int32_t timeoutSec); /* as KOLT_rcvBuf; a byte above 0x3F ends it (its position + 1) */
KOLT_API int32_t KOLT_rcvBufFromHeadByte(int32_t fd, uint8_t *buf, int32_t len, uint8_t head, int32_t timeoutSec); /* skips to head, then reads len bytes in all; -1 no head */
KOLT_API int32_t KOLT_rcvBufFrom2DisHeadByte(int32_t fd, uint8_t *buf, int32_t len, uint8_t headA, uint8_t headB, int32_t timeoutSec); /* as above with two heads */
KOLT_API int32_t KOLT_clearComBuf(int32_t fd);                                      /* discards pending input; 0, or -1 after 5 s of continuous data */
KOLT_API int32_t KOLT_writeBufAndReadFromT41(uint8_t cmdClass, uint8_t cmdCode, const uint8_t *data, int32_t dataLen, uint8_t *out, int32_t timeoutSec); /* main frame; decoded reply length, -1 none/too long, -2 check byte, -3 bad argument */
KOLT_API int32_t KOLT_T41_Ret_Code(uint8_t s1, uint8_t s2);                         /* device status pair to result code */
KOLT_API int32_t KOLT_Equal_2bytes(const uint8_t *p, uint8_t a, uint8_t b);         /* 0 when p[0] == a and p[1] == b, else -1 */
KOLT_API int32_t KOLT_writeBufAndRead(int32_t fd, uint8_t cmd, const uint8_t *data, int32_t dataLen, uint8_t *out, int32_t timeoutSec); /* bracket frame; decoded data length, -1, -2 */
KOLT_API int32_t KOLT_sendCmd100s(uint8_t cmd);                                     /* sends an 0x86 frame; the count of characters written */
KOLT_API int32_t KOLT_writeBufAndReadFrom100s(uint8_t cmd, int32_t unused1, int32_t unused2, uint8_t *out, int32_t timeoutSec); /* 0x86 frame; decoded length, -1, -2 */
KOLT_API int32_t KOLT_getDeviceType(void);                                          /* 1 the 0x86 family answers, 0 the bracket family, -1 none */
KOLT_API int32_t KOLT_T41_Unbase64(uint8_t *reply);                                 /* decodes a special reply's base64 body in place (reply room KOLT_T41_REPLY_MAX); n + 5, -1 length past the room */
/* ---- KOLT-LINK-END ---- */

/* ---- KOLT-DEVICE-BEGIN (peripheral and identity-module commands) ---- */
/* Room of the version buffer of KOLT_T41_GetVersion: a longer version is refused (-1). */
#define KOLT_VERSION_MAX 256
/* Room of the serial-number text of KOLT_T41_GetSAIMIDStr (the longest text is 44 characters and a terminator). */
#define KOLT_SAIMID_TEXT_MAX 48

KOLT_API int32_t KOLT_T41_SigleOperate(uint8_t cmdClass, uint8_t cmdCode);          /* one command without data; 0, -2 status not 00 00, -1 no reply */
KOLT_API int32_t KOLT_T41_OpenRF(void);                                             /* switches the contactless field on; 0, -2, -1 */
KOLT_API int32_t KOLT_T41_CloseRF(void);                                            /* switches the contactless field off; 0, -2, -1 */
KOLT_API int32_t KOLT_T41_Buzz(void);                                               /* sounds the buzzer; 0, or -1 when no reply */
KOLT_API int32_t KOLT_T41_LedOperate(uint32_t led, uint32_t color, uint32_t mode);  /* LED_IC..LED_FP, LED_Color_*, LED_Lightout/Light/Flicker; 0 or -1 */
KOLT_API int32_t KOLT_T41_IDLedFlicker(void);                                       /* contactless LED green, blinking; 0 or -1 */
KOLT_API int32_t KOLT_T41_IDLedLight(void);                                         /* contactless LED green, on; 0 or -1 */
KOLT_API int32_t KOLT_T41_IDLedLightOut(void);                                      /* contactless LED off; 0 or -1 */
KOLT_API int32_t KOLT_T41_Id_FindCard(void);                                        /* identity module: find card; 0, -2, -1 */
KOLT_API int32_t KOLT_T41_Id_SelectCard(void);                                      /* identity module: select card; 0, -2, -1 */
KOLT_API int32_t KOLT_T41_Id_ReadCard(uint8_t *reply);                              /* identity card read, whole frame into a KOLT_T41_REPLY_MAX buffer; frame length, -2, -1 */
KOLT_API int32_t KOLT_T41_ReadIDCard(uint8_t *reply, uint32_t timeout);             /* as KOLT_T41_Id_ReadCard with the caller's time-out */
KOLT_API int32_t KOLT_T41_GetVersion(uint8_t selector, uint8_t *out, uint32_t timeout); /* version bytes into a KOLT_VERSION_MAX buffer (no terminator); their count, -2, -1 */
KOLT_API int32_t KOLT_T41_GetSAIMIDStr(char *out, uint32_t timeout);                /* identity module serial number text into KOLT_SAIMID_TEXT_MAX bytes; frame length, -2, -1 */
/* ---- KOLT-DEVICE-END ---- */

/* ---- KOLT-ICC-BEGIN (IC card command set) ---- */
/* Card commands (uint32_t results) return the card's status word
 * SW1*256+SW2 (APDU_OK = 0x9000) or, when the reader failed, a device result
 * code as an unsigned value (Revdata_Error, Lenth_Error, ICC_...). Card
 * reply buffers (out) hold 256 bytes: the response data, SW1 SW2 and a zero. */
KOLT_API int32_t KOLT_T41_ICC_Getstate(uint32_t slot);                              /* reader state query (slot not used); the raw transport result */
KOLT_API int32_t KOLT_T41_ICC_Poweron(uint32_t slot, uint32_t timeout, int32_t *outSlot); /* slot 0x00/0x01/0xFF, 0x02 = contact then contactless; *outSlot = slot used; OK, Para_Error, Revdata_Error, ICC_... */
KOLT_API int32_t KOLT_T41_ICC_Poweroff(uint32_t slot);                              /* power-off of slot (0xFF contactless); OK, Revdata_Error, ICC_... */
KOLT_API int32_t KOLT_T41_APDUHexstr(uint32_t slot, const char *hexText, uint8_t *out, int32_t *outLen, uint32_t timeout); /* APDU as hex text (blanks ignored); out = response bytes and SW; device result */
KOLT_API int32_t KOLT_T41_APDUBuf(uint32_t slot, const uint8_t *apdu, int32_t apduLen, uint8_t *out, int32_t *outLen, uint32_t timeout); /* APDU bytes; out = response bytes and SW; device result */
KOLT_API uint32_t KOLT_T41_ICC_APDULcData(uint32_t slot, const uint8_t *header4, const uint8_t *data, int32_t lc, uint8_t *out, int32_t *outLen, uint32_t timeout); /* CLA INS P1 P2, Lc, data; status word; Lenth_Error for lc < 0 or lc > 255 */
KOLT_API uint32_t KOLT_T41_ICC_Comm_Read_Record(uint32_t slot, int32_t record, int32_t sfi, uint8_t *out, int32_t *outLen, uint32_t timeout); /* READ RECORD 00 B2 record sfi*8+4 00; status word */
KOLT_API uint32_t KOLT_T41_ICC_Select_Aid(uint32_t slot, const uint8_t *aid, int32_t aidLen, uint8_t *out, int32_t *outLen, uint32_t timeout); /* SELECT by name 00 A4 04 00 Lc aid; status word */
KOLT_API uint32_t KOLT_T41_ICC_SetGPO(uint32_t slot, const uint8_t *pdolData, int32_t len, uint8_t *out, int32_t *outLen, uint32_t timeout); /* GET PROCESSING OPTIONS 80 A8 00 00 len+2 83 len data; status word */
KOLT_API uint32_t KOLT_T41_ICC_Generate_Ac(uint32_t slot, uint8_t p1, const uint8_t *cdolData, int32_t len, uint8_t *out, int32_t *outLen, uint32_t timeout); /* GENERATE AC 80 AE p1 00 Lc data; status word */
KOLT_API uint32_t KOLT_T41_External_Authenticate(uint32_t slot, const uint8_t *data, int32_t len, uint8_t *out, int32_t *outLen, uint32_t timeout); /* EXTERNAL AUTHENTICATE 00 82 00 00 Lc data; status word */
KOLT_API uint32_t KOLT_T41_Put_Data(uint32_t slot, const uint8_t *tag2, const uint8_t *data, int32_t len, uint8_t *out, int32_t *outLen, uint32_t timeout); /* PUT DATA 04 DA tag Lc data (secure messaging class); status word */
KOLT_API uint32_t KOLT_T41_Exec_Script(uint32_t slot, const uint8_t *command, int32_t len, uint8_t *out, int32_t *outLen, uint32_t timeout); /* one script command as it stands; status word, (uint32_t)-1 for len < 4 */
KOLT_API uint32_t KOLT_T41_Exec_MutiScript(uint32_t slot, const uint8_t *script, int32_t len, int32_t *executed, uint32_t timeout); /* every 86 command of a script; 0x9000 or the failing status word; *executed = commands done */
KOLT_API uint32_t KOLT_T41_ICC_GetData(uint32_t slot, const uint8_t *tag2, uint8_t *out, uint32_t timeout); /* GET DATA 80 CA tag 00; out[0] = length, value from out[1] (9F13/9F77/9F78/9F79 as hex digits); status word */
KOLT_API int32_t KOLT_PSAM_Operate(int32_t termType, const char *ttyName, int32_t port, const char *transfer, int32_t unused, uint32_t slot); /* opens the link, powers slot on and off, closes; -1 link or power-on failed, else the power-off result */
/* ---- KOLT-ICC-END ---- */

/* ---- KOLT-EMV-BEGIN (EMV tag tables, DOL, application selection) ---- */
KOLT_API int32_t KOLT_T41_GetApduTagListIndex(const uint8_t *tag, int32_t len);     /* letter position (0..29) of a 1-byte tag (len 1) or 2-byte tag (any other len); -1 unknown */
KOLT_API int32_t KOLT_T41_GetApduTagListIndexFromInt(uint64_t tag);                 /* letter position of a tag given as an integer (9F36 = 0x9F36); -1 unknown */
KOLT_API int32_t KOLT_T41_GetTagListIndex(char letter);                             /* position of a letter of "ABCDEFGHIJKLMNOPQRSTUVWXYZ1234"; -1 unknown */
KOLT_API int32_t initTagListValue(void);                                            /* country (9F1A) and currency (5F2A) default to "0156" when empty; returns 0 */
KOLT_API int32_t KOLT_IsAllFindTagList(const char *letters);                        /* 0 when every letter has been found in a card reply, else -1 */
KOLT_API int32_t KOLT_T41_ParseTagValue(const uint8_t *reply, int32_t len, int32_t strict); /* stores every table tag of a reply (any depth) into its letter; returns 0 */
KOLT_API int32_t KOLT_T41_GetTagValue(const uint8_t *reply, int32_t len, const char *tag, uint8_t *out, int32_t *outLen, int32_t strict); /* value of tag (any depth) into out (256 bytes); set *outLen = -1 first; -1 already set, -2 undecodable, top-level length or 0 */
KOLT_API int32_t KOLT_T41_ICC_PareseSecondTrackData(void);                          /* track 2 (E) split into account number (A) and YYMM (I); -1 when none is held */
KOLT_API int32_t KOLT_GetApduDataFromCDOL(const uint8_t *dol, int32_t dolLen, const uint8_t *random, uint8_t *out, int32_t *outLen); /* DOL data into out (256 bytes), random = 4 bytes; 0, -1 empty DOL or data too long */
KOLT_API int32_t KOLT_T41_ParseOneRecord(const uint8_t *record, char *out);         /* 45-byte log record to lettered text P..X; out needs 108 bytes (106 characters, 107 when the ATC is 10000 or more, and a terminator); returns its length */
KOLT_API int32_t KOLT_SetTLV(const uint8_t *tag, int32_t len, const uint8_t *value, uint8_t *out); /* tag, one length byte, value; returns bytes written, -1 for len outside 0..255 */
/* Application initiation: aidList = count byte, then per candidate a length byte and the AID (may be NULL);
 * aipAfl (256 bytes) receives AIP and AFL, logEntry (256 bytes) the 9F4D value (length -1 when none).
 * Results: 0; -1 power-on failed; -2 PSE SELECT device failure; -3 no SFI (88); -4 SELECT refused;
 * -5 contactless PDOL without 9F66; -6 GPO reply not in format 80; -7 application locked (went on);
 * -12 no answer at power-on; ICC_Contact_Not_Insert. */
KOLT_API int32_t KOLT_T41_InitICCardApp(uint32_t timeout, uint32_t slot, const uint8_t *aidList, uint8_t *aipAfl, int32_t *aflCount, uint8_t *logEntry, int32_t *logEntryLen); /* power-on, select, GPO; aidList (count, then length and AID per candidate) is read within 256 bytes; codes above */
KOLT_API int32_t KOLT_T41_InitICCardApp_PSBC(uint32_t timeout, uint32_t slot, const char *aidText, uint8_t *aipAfl, int32_t *aflCount, uint8_t *logEntry, int32_t *logEntryLen); /* as KOLT_T41_InitICCardApp with one candidate as hex text (NULL or "" for none) */
KOLT_API int32_t KOLT_T41_ICC_GetCardAppState(uint32_t slot);                       /* powered card: status word of the directory application's SELECT (0x9000, 0x6283 locked); -2, -3 */
/* ---- KOLT-EMV-END ---- */

/* ---- KOLT-CARDINFO-BEGIN (card information and transaction log) ---- */
/*
 * Tag letters name data elements ("ABCDEFGHIJKLMNOPQRSTUVWXYZ1234"). A
 * request is read up to KOLT_TAG_LETTERS_MAX letters, and a STAR_ input text
 * up to KOLT_STAR_INPUT_MAX characters, each of its fields up to
 * KOLT_TAG_LETTERS_MAX. Card-information outputs need 4 bytes per requested
 * letter plus the value (at most 255 bytes each) and a terminator; failures
 * write a short GBK text (at most 22 bytes and a terminator) instead.
 * Application data blocks (IC_GetInfo_YS) need KOLT_APPDATA_MAX bytes;
 * transaction-log outputs KOLT_TXLOG_MAX bytes (records that would not fit
 * are not read).
 */
#define KOLT_TAG_LETTERS_MAX 255
#define KOLT_STAR_INPUT_MAX 1023
#define KOLT_APPDATA_MAX 1542
#define KOLT_TXLOG_MAX 2048

KOLT_API int32_t KOLT_DoICType(int32_t icType, int32_t *flag);                      /* IC type to slot: 0/20 contact 0, 1/21 contactless 255, 2/22 auto 2, else 0; *flag = -1 for the six codes */
KOLT_API int32_t GetSysDate(char *out);                                             /* local time "%Y%m%d%H%M%S" (15 bytes with terminator); returns 0 */
KOLT_API int32_t KOLT_ICRT_GetICCInfo(int32_t termType, int32_t port, int32_t icType, const char *aidList, const char *tagList, char *out); /* letter + "%03d" + value per letter; aidList is read up to its terminating zero (at most 256 bytes); 0, 10 locked, -21 port, -11 power-on, -22 read, init code - 10 */
KOLT_API int32_t ICRT_GetICCInfo(int32_t termType, int32_t port, int32_t icType, const char *aidList, const char *tagList, char *out); /* as KOLT_ICRT_GetICCInfo */
KOLT_API int32_t STAR_GetInfo(const char *dataIn, char *out);                       /* "a|port|b|letters": contactless card info via terminal type 1; always 0 (failure shows in out) */
KOLT_API int32_t IC_GetInfo_YS(int32_t icType, const char *tagList, const char *aidList, char *out, int32_t *cardKind, char *appData); /* YS letters A..L on an open link; 0, -1, -2, -9, -10; kind 1/2; appData block */
KOLT_API int32_t IC_GetInfo(const char *portName, int32_t reserved1, int32_t reserved2, int32_t reserved3, int32_t *icType, const char *aidList, const char *tagList, int32_t *outLen, char *out); /* icType from 1 in, card kind out; 0, -3 port, -99 */
KOLT_API int32_t KOLT_ICRT_GetTrDetail(int32_t termType, int32_t port, int32_t icType, const char *aidList, char *out); /* "%03d" record length + records; record count, -21, -11, -23, -10 no log entry, read - 22 */
KOLT_API int32_t ICRT_GetTxDetail(int32_t termType, int32_t port, int32_t icType, const char *aidList, char *out); /* as KOLT_ICRT_GetTrDetail */
KOLT_API int32_t ICRT_GetTrDetail(int32_t termType, int32_t port, int32_t icType, int32_t index, const char *aidList, char *out); /* index 0 all records (no header, no terminator: zero out first), k one record; 0, -105, -102, -120 */
KOLT_API int32_t STAR_GetTxDetail(const char *dataIn, char *out);                   /* "a|port|b|txdata": contactless log via terminal type 1; always 0 */
KOLT_API int32_t IC_GetTranDeta(const char *portName, int32_t reserved1, int32_t reserved2, int32_t reserved3, int32_t *icType, const char *aidList, int32_t *outLen, char *out); /* all log records (zero out first); 0, -3, -25, -11, -99 */
KOLT_API int32_t IC_GetTxDetail(int32_t icType, const char *aidList, char *out, int32_t *cardKind); /* on an open link: count byte, length byte, records; 0, 10 read failed, -1, -2, -9, -10 */
/* ---- KOLT-CARDINFO-END ---- */

/* ---- KOLT-ONLINE-BEGIN (online transaction: ARQC, field 55, issuer authentication, scripts) ---- */
/*
 * Transaction data, ICRT encoding: per field a letter, three digits n, n
 * characters ("P003100" is an amount of 100). J and V are stored as W, K as
 * 2 (9F37), L as 1 (95). P and Q become "%012d", R "%04d" (and 9F1A when V
 * is empty). IC encoding: a letter, one binary length byte, the value; read
 * up to a zero letter (zero the buffer behind the data) or 100 fields; only
 * V is renamed (to W). Application data blocks of IC_GetInfo_YS use it too.
 * Field-55 outputs need KOLT_FIELD55_MAX + 1 bytes; the second-cryptogram
 * output ("%03d" of the text length, then field 55) 3 more; IC_GenARQC_YS's
 * output 6 more. An ARPC text (the host's response data as hex: 91 with the
 * ARPC and the two response-code characters, optionally a 71 or 72 script)
 * is read up to KOLT_ARPC_TEXT_MAX characters, an application data text up
 * to KOLT_APPDATA_TEXT_MAX. Script results need 18 bytes.
 */
#define KOLT_FIELD55_MAX 2720
#define KOLT_ARPC_TEXT_MAX 4096
#define KOLT_APPDATA_TEXT_MAX 1024

KOLT_API int32_t KOLT_ParaseTrData_PSBC(const char *trData);                       /* stores ICRT-encoded transaction data into the letter slots; 0, -2 at an unknown letter (fields before it stay) */
KOLT_API int32_t KOLT_ParaseTrData(const char *trData);                            /* the same for the IC encoding; 0 or -2 */
KOLT_API int32_t ParaDeal(const char *in, char *out);                              /* appends the ICRT text normalised (P/Q "%012s", R "%04s", blank-padded) to out; out needs strlen(out) + 4 * strlen(in) + 1; 0 */
KOLT_API int32_t KOLT_Get55Data(const uint8_t *ac, int32_t acLen, const uint8_t *aipAfl, const uint8_t *random, char *out); /* field 55 hex text of a GENERATE AC value (CID, ATC, AC, IAD) and 4 random bytes, from the letter slots (82 from Z; aipAfl unused); returns its length */
KOLT_API int32_t KOLT_ARPC_GetScritp(const uint8_t *data, int32_t len, uint8_t *script, int32_t *scriptLen, uint8_t *idBlock); /* first script template: 0x71 or 0x72 (script needs len bytes, idBlock 5: 04 and 9F18), or -1 with *scriptLen = -1 */
KOLT_API int32_t KOLT_ICRT_GetARQC(int32_t termType, int32_t port, int32_t icType, const char *trData, const char *aidText, char *field55, char *appData); /* ARQC; field55 without terminator (zero it first), appData = CDOL2 hex + lock digit; card left powered; 0, 10 locked, -21, -11, init - 10, read - 22, -24 no CDOL1, -25 no AC */
KOLT_API int32_t ICRT_GetARQC(int32_t termType, int32_t port, int32_t icType, const char *trData, const char *aidText, char *field55, char *appData); /* as KOLT_ICRT_GetARQC */
KOLT_API int32_t STAR_GetARQC(const char *dataIn, char *out);                      /* "a|port|b|txdata" (txdata goes in as the AID): out = field 55, app data, "|1"; always 0 */
KOLT_API int32_t IC_GenARQC(const char *portName, int32_t reserved1, int32_t reserved2, int32_t reserved3, int32_t *icType, const char *aidText, const char *trData, int32_t *outLen, char *field55, char *appData); /* icType from 1 in, card kind out; resets the card slot; 0, -3 port, -99 (locked too) */
KOLT_API int32_t IC_GenARQC_YS(int32_t icType, const char *trData, const char *aidList, char *arqc, int32_t reserved, int32_t *cardKind, char *appData); /* on an open link, IC-encoded data and block; arqc = hex of "%03d" byte count + field 55; block rebuilt (AJZ34); 0, -1, -9, -10, -3 */
KOLT_API int32_t KOLT_ICRT_ARPCExeScript(int32_t termType, int32_t port, int32_t icType, const char *trData, const char *arpc, const char *appData, char *scriptResult, char *secondAc); /* issuer auth, TC/AAC, script, power-off; scriptResult "DF3105" state index id; 0, -21, -26, -27, -28, -29 */
KOLT_API int32_t ICRT_ARPCExeScript(int32_t termType, int32_t port, int32_t icType, const char *trData, const char *arpc, const char *appData, char *scriptResult, char *secondAc); /* as KOLT_ICRT_ARPCExeScript */
KOLT_API int32_t IC_CtlScriptData(const char *portName, int32_t reserved1, int32_t reserved2, int32_t reserved3, int32_t *icType, const char *trData, const char *arpc, int32_t *outLen, char *secondAc, char *scriptResult, const char *appData); /* icType from 1 in, card kind out; 0, -3, -15, -11, -25, -31, -30, -99 */
KOLT_API int32_t STAR_ARPC_ExeICScrip(const char *dataIn, char *out);              /* "a|port|b|arpc|x" with the CDOL2 of STAR_GetARQC: out = script result "|" second cryptogram; always 0 */
KOLT_API int32_t IC_ARPC_ExeICScript(int32_t icType, const char *trData, const char *arpc, int32_t forceAac, char *secondAc, char *scriptResult, const char *appData); /* on an open link, IC-encoded data and block; forceAac asks AAC; 0, -2 auth or AC failed, -4 no tag 91 (only the power-off is sent), -10 GET DATA or script */
/* ---- KOLT-ONLINE-END ---- */

/* ---- KOLT-IDCARD-BEGIN (identity card reading and photo) ---- */
/*
 * The card line (infoOut, KOLT_IDINFO_MAX bytes): "|"-separated GBK fields,
 * 15 for the resident identity card (ending "A") and the foreign permanent
 * resident card (ending "I"), 17 for the residence permit ("J", then pass
 * number and issue count). The photo goes to "zp.bmp" in the working
 * directory through "./libwlt.so" (unpack); a residence permit's images go
 * to "./zfmfront.bmp" and "./zfmback.bmp" through "./libidpic.so"
 * (GetJIdPic). Photo paths are read up to KOLT_PATH_MAX characters, the
 * Base64 photo of displayCheckResult up to KOLT_PHOTO_BASE64_MAX.
 */
#define KOLT_IDINFO_MAX 512
#define KOLT_PATH_MAX 1024
#define KOLT_PHOTO_BASE64_MAX 65536

KOLT_API int32_t ID_GetInfo(const char *port, int32_t a2, int32_t a3, int32_t timeout, const char *photoPath, int32_t a6, int32_t a7, int32_t a8, char *infoOut); /* port name into gPortName; timeout 0 = 864000 s; 0, -98 no ./libwlt.so, -3, -11, -99 */
KOLT_API int32_t getIdCardInfo(int32_t termType, const char *devName, int32_t port, const char *auxArg, int32_t timeout, char *infoOut, const char *photoPath, int32_t a8, int32_t a9, int32_t a10); /* waits for a card and reads it; 0, -5 port, -2 no card in time, -1 module error, -98 */
KOLT_API int32_t YC_idCovToGBK(const uint8_t *record, char *infoOut, const char *photoPath, int32_t a4, int32_t a5, int32_t a6); /* card record (256 text + 1024 photo bytes) to the card line and zp.bmp; 0 or -98 */
KOLT_API int32_t YC_GetBmp(const uint8_t *photo);                                   /* 1024-byte photo block to "zp.bmp" (102 x 126, 24 bits); 0 or -98 */
KOLT_API int32_t displayCheckResult(int32_t termType, const char *ttyName, int32_t portId, const char *extendCmd, const char *resultCode, const char *name, const char *id, const char *issueOrgan, const char *photoBase64); /* verification result to the reader (command 0x51); 0, or -5 when the port cannot be opened */
/* ---- KOLT-IDCARD-END ---- */

/* ---- KOLT-CLERK-BEGIN (clerk verification over TCP) ---- */
/*
 * Requests to the clerk verification server named by "serverip" and
 * "serverport" of $HOME/librun/koltt41fp.cfg: one XML envelope over one
 * short-lived TCP connection, the answer read from "<?xml" to "</koltes>"
 * with a time-out of 20 seconds. Values go into the envelope unescaped.
 * Reply buffers hold KOLT_CLERK_REPLY_MAX bytes (a longer answer is an
 * error, never written); a node value needs at most the length of the XML
 * text plus its terminator.
 */
#define KOLT_CLERK_REPLY_MAX 16384   /* room of socketXmlRead / socketXmlWriteAndRead answers, terminator included */
#define KOLT_CLERK_PASSWORD_MAX 64   /* room of Verify_clerk_finger's password, terminator included */

struct sockaddr;

KOLT_API int32_t Verify_clerk_finger(int32_t termType, const char *portArg, int32_t port, const char *auxArg, int32_t timeoutSecs, const char *bankCode, const char *clerkNum, char *passwordOut); /* fingerprint check: server "result"; -1 net, -2 empty answer, -3 no result, -5/-6 capture, -7 no password, -8 no settings */
KOLT_API int32_t QueryClerkMode(const char *bankCode, const char *clerkNum);       /* server "msgflagresult"; -1 net, -2 empty answer, -3 no result, -8 no settings */
KOLT_API int32_t RefreshPwd(const char *bankCode, const char *clerkNum, const char *newPassword); /* server "updatepwdresult"; -1 net, -2 empty answer, -3 no result, -8 no settings */
KOLT_API int32_t sendedXml(char *out, const char *bankCode, const char *clerkNum, const char *sysNum, const char *staffNum, const char *fingerprint, const char *password, const char *msgFlag); /* request envelope into out (values verbatim); 0 */
KOLT_API int32_t sendedXmlOld(char *out, const char *bankCode, const char *clerkNum, const char *sysNum, const char *staffNum, const char *fingerprint, const char *password, const char *msgFlag); /* the earlier message (head, request, tail) into out; 0; unused by the library */
KOLT_API int32_t socketXmlWriteAndRead(const char *serverIp, int32_t serverPort, const char *request, char *replyBuf, const char *startMark, const char *endMark, int32_t timeoutSecs); /* one request, one answer; its length, -1 socket/read, -2 connect, -3 send */
KOLT_API int32_t socketXmlRead(int32_t fd, char *replyBuf, const char *startMark, const char *endMark, int32_t timeoutSecs); /* answer from startMark to endMark; its length, -1 no start in time, -2 no end in time, -3 too long */
KOLT_API int32_t socketConnect(int32_t fd, const struct sockaddr *addr, uint32_t addrLen, int32_t timeoutSecs); /* connect within timeoutSecs (0 no limit); 0, -1 refused, -2 time-out (fd closed), -3, -4, -5 failed (fd closed) */
KOLT_API int32_t KOLT_XML_GetNodeValue(const char *xml, const char *name, char *valueOut); /* text of the first <name>...</name>; 0, -1 no opening tag, -2 no closing tag */
/* ---- KOLT-CLERK-END ---- */

/* ---- KOLT-STRIPE-BEGIN (magnetic stripe) ---- */
/*
 * Framed path: the stripe LED is lit around the read; each track buffer of
 * KOLT_T41_MC_ReadThreeTrackData (KOLT_T41_REPLY_MAX bytes) gets the track's
 * status, its two length bytes as the reply carries them, then the data.
 * Escape-sequence path: mode 2 (track 2), 3 (track 3), 23 (both); track
 * outputs need KOLT_STRIPE_TEXT_MAX bytes; write texts are read up to 500
 * characters. A waiting read or write ends within 0.1 s of cancelOperation
 * being set to 1 (result -3, the reader reset with ESC "0"). Only a
 * successful read closes the port; the other endings after the command
 * leave it open.
 */
#define KOLT_STRIPE_TEXT_MAX 1024

KOLT_API int32_t KOLT_T41_MC_ReadData(uint8_t *out, uint32_t timeout);             /* framed stripe read (0x36 0x91), reply into out (KOLT_T41_REPLY_MAX); device result code, Revdata_Error */
KOLT_API int32_t KOLT_T41_MC_ReadThreeTrackData(uint8_t *track1, uint8_t *track2, uint8_t *track3, uint32_t timeout); /* three tracks (status, length hi/lo, data); 0, device result code, Revdata_Error */
KOLT_API int32_t getCardNoLen(const uint8_t *buf, int32_t len);                     /* index of the first non-digit; -1 when all len bytes are digits */
KOLT_API int32_t getMCCardNo(int32_t termType, const char *portArg, int32_t port, const char *auxArg, char *cardNo, int32_t unused); /* account number of track 2 (no terminator: zero cardNo first); 0, -1 port or no track 2, -2 no digits */
KOLT_API int32_t KOLT_MC_Read(int32_t termType, int32_t port, int32_t mode, char *track2, char *track3, uint32_t timeout); /* escape-sequence read; 0, -1 port, -2 time-out, -3 cancelled, -4 bad reply, -5 empty track, -6 no "A" */
KOLT_API int32_t KOLT_MC_Write(int32_t termType, int32_t port, int32_t mode, const char *track2, const char *track3, uint32_t timeout); /* escape-sequence write; 0, -1 port, -2 time-out, -3 cancelled, -4 refused; other modes send no data and check no status */
KOLT_API int32_t MsrRead(int32_t mode, int32_t unused, char *track2, char *track3, int32_t port, uint32_t timeout); /* KOLT_MC_Read on terminal type 0, mode 1 read as 23; 0 or -204 */
KOLT_API int32_t MsrWrite_YZ(int32_t port, int32_t unused, int32_t mode, const char *track2, const char *track3, const char *label, uint32_t timeout); /* KOLT_MC_Write on terminal type 0; 0 or -204 */
KOLT_API int32_t MS_ReadCard(const char *port, int32_t a2, int32_t a3, int32_t a4, int32_t mode, int32_t a6, char *track2, char *track3); /* port name into gPortName, port 0, 5 s; modes 23 and 1 alike; 0 or -11 */
KOLT_API int32_t MS_WriteCard(const char *port, int32_t a2, int32_t a3, int32_t a4, int32_t mode, int32_t a6, const char *track2, const char *track3); /* port name into gPortName, port 0, 5 s; 0 or -11 */
/* ---- KOLT-STRIPE-END ---- */

/* ---- KOLT-IDCODE-BEGIN (identity-card character codes) ---- */
/*
 * GBK <-> UCS-2 tables of the identity card: 0x00-0x7F and every two-byte
 * GBK code 0x8140-0xFEFE, each to one BMP code point (the user-defined areas
 * to the private use area). Converters write no terminator unless noted;
 * a null input with a positive length, or a null output, gives -1 and
 * writes nothing.
 */
#define KOLT_IDCOV_TEXT_MAX 191 /* room of idCovToGBK's output, terminator included */

KOLT_API int32_t searchgb(int32_t unicode);                                        /* GBK code of a Unicode value, or -1 */
KOLT_API int32_t searchuni(int32_t gbk);                                           /* Unicode value of a GBK code, or -1 */
KOLT_API int32_t KOLT_idInfoConvert2gb(const uint8_t *in, int32_t len, char *out); /* UCS-2LE to len bytes, two per unit: GBK high first, " " + ASCII, "**" unmapped; 0, -1 odd len */
KOLT_API int32_t convert2gb(const uint8_t *in, int32_t len, char *out);            /* as KOLT_idInfoConvert2gb with UCS-2BE units; 0, -1 odd len */
KOLT_API int32_t convert2uni(const uint8_t *in, int32_t len, uint8_t *out);        /* two-byte GBK units to len bytes of UCS-2BE, unmapped 00 FF; 0, -1 odd len */
KOLT_API int32_t KOLT_gbConvert2idUni(const char *in, int32_t len, uint8_t *out);  /* GBK/ASCII text to UCS-2LE (room 2 * len; a last lead byte reads trail 0), unmapped FF 00; byte count, 0 for len <= 0, -1 for null */
KOLT_API int32_t isChineseHighByte(int32_t c);                                     /* 1 when c > 127, else 0 */
KOLT_API int32_t KOLT_getNationCode(const char *name, char *codeOut);              /* codeOut (8 bytes, cleared) = "%02d" code of a GBK nation name ("" is 00); 0, -1 unknown or null */
KOLT_API int32_t KOLT_getCheckResultCode(const char *text, char *codeOut);         /* codeOut (8 bytes, cleared) = "00".."03" of a verification text, else "04"; always 0 */
KOLT_API int32_t idCovToGBK(const uint8_t *raw, char *out);                        /* 220-byte UCS-2LE card text record to "name:sex:nation:birth:address:number:authority:from-to" (KOLT_IDCOV_TEXT_MAX); 0, -1 for null */
KOLT_API int32_t converZh(const char *hex4, uint8_t *out2);                        /* 2 bytes of a 4-hex key in the loaded 8-byte record table; 1, -1 not found (message on stdout) or null */
/* ---- KOLT-IDCODE-END ---- */

/* ---- KOLT-FINGER-BEGIN (fingerprint sensor: framed sensor and EF01 module) ---- */
/*
 * The sensor is either the framed one (device type 0, class 0x37) or a
 * module speaking EF01 packets on the same line (device type 1). Feature
 * data is 256 bytes, handed out as 512 upper-case hex digits and a
 * terminator. The ARA_EM02_ calls and KOLT_T41_FP_Init work on the open
 * link; KOLT_T41_FP_GenChar opens and closes it itself.
 */
#define KOLT_FP_PACKET_MAX 267   /* room of an EF01 packet buffer: 9 header bytes, 256 payload bytes, the sum */
#define KOLT_FP_FEATURE_SIZE 256 /* bytes of feature data */
#define KOLT_FP_FEATURE_HEX_MAX 513 /* room of the feature text, terminator included */
#define KOLT_FP_SERVERIP_MAX 256 /* room of KOLT_T41_FP_ReadCfg's address text, terminator included */

KOLT_API int32_t ARA_EM02_Protocol(uint8_t pid, const uint8_t *payload, int32_t len, uint8_t *out, int32_t *outLen); /* EF01 packet for a payload into out (room len + 11); 0, -1 bad argument */
KOLT_API int32_t ARA_EM02_WriteAndRead(uint8_t pid, const uint8_t *payload, int32_t len, uint8_t *reply, int32_t timeoutSecs); /* packet out, answer into reply (KOLT_FP_PACKET_MAX); its length, -1 no header, -2 short body, -3 length field malformed or past the room */
KOLT_API int32_t ARA_EM02_Read(uint8_t *reply, int32_t timeoutSecs);              /* one packet that comes without a command, as ARA_EM02_WriteAndRead */
KOLT_API int32_t ARA_EM02_GenChar(uint8_t *featureOut, int32_t timeoutSecs);      /* EF01 capture into 256 bytes; 0, -1..-6 the failing step, -7 time-out, -8 data packets */
KOLT_API int32_t KOLT_T41_FP_Init(uint8_t param);                                 /* framed sensor init (0x37 0x93); 0, -1 exchange failed, -2 status not zero */
KOLT_API int32_t KOLT_FP_GetDeviceType(void);                                     /* 0 framed sensor, 1 EF01 module, -1 no answer */
KOLT_API int32_t KOLT_T41_FP_GenChar(int32_t termType, const char *portArg, int32_t port, const char *auxArg, int32_t a5, char *featureHexOut, int32_t timeoutSecs); /* opens the link, captures, closes; hex into featureHexOut (KOLT_FP_FEATURE_HEX_MAX); 0, -1 port, -2 time-out, -3 exchange or device, -4 EF01 capture */
KOLT_API int32_t KOLT_T41_FP_ReadCfg(char *serverIpOut, int32_t *serverPortOut);  /* "serverip" (KOLT_FP_SERVERIP_MAX) and "serverport" of $HOME/librun/koltt41fp.cfg; 0, -1 no serverip, -2 no serverport */
/* ---- KOLT-FINGER-END ---- */

/* ---- KOLT-DEVINFO-BEGIN (device information, JSON in and out) ---- */
/*
 * Request: {"FunctionCode":"0001","RequestPort":"3","RequestBaudRate":"9600","RequestTimeOut":"3"}.
 * All four keys are required and must be JSON strings (any other value counts
 * as absent); keys match without regard to letter case. The device opened is
 * "/dev/COM<port>" in local mode. Every failure gives the one answer
 * {"ErrorCode":"-1","ErrorMessage":"parameter error"}.
 */
#define KOLT_DEVINFO_RESPONSE_MAX 2048 /* room of DEV_CommCall's answer, terminator included */

KOLT_API int32_t DEV_CommCall(const char *inJson, void *unused, char *outJson, int32_t *outLen); /* device information as unformatted JSON into outJson (KOLT_DEVINFO_RESPONSE_MAX), its length into outLen; always 0 */
/* ---- KOLT-DEVINFO-END ---- */

#ifdef __cplusplus
}
#endif

#endif /* KOLT_KOLT_H */
