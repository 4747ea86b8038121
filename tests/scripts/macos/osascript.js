// osascript.js -- runs programs as `osascript -l JavaScript` does, with a model of the bridge to macOS.
//
// Reads requests from standard input, one line of JSON each, and writes one line of JSON for each:
//   request  {program, arguments, input: base64, users: [name], refusal}
//           refusal is null, "node" for a directory that cannot be opened, or how the password is refused:
//           "error", "silent" for one without an NSError, "exception"
//   answer   {status, complaint, misuses: [text], passwords: [{user, password: base64}]}
//
// The model knows only the classes, the methods and the constants that setting a password needs, each with
// the number and the kinds of its arguments.  Any other call is a misuse: a Mac may know it, or not.  Where a
// Mac's behaviour is uncertain the model assumes the worse.
'use strict';
const vm = require('vm');
const readline = require('readline');

const SECONDS = 10; // a program that runs longer is taken to hang
const FRAMEWORKS = ['Foundation', 'OpenDirectory'];
const LOCAL_NODE = '/Local/Default', SEARCH_NODE = '/Search';
const USERS = 'dsRecTypeStandard:Users';
const UTF8 = 4, ASCII = 1; // the values of NSUTF8StringEncoding and NSASCIIStringEncoding

// A misuse counts even if the program catches the exception.
let misuses = [];

class Misuse extends Error {
    constructor(text) {
        super(text);
        misuses.push(text);
    }
}

// Models an object of macOS: its kind, its content, and the methods that programs may call.  A
// method without arguments is called like a property, by its name.
class Bridged {
    constructor(kind, value, methods = {}) {
        Object.assign(this, {kind, value, methods});
    }
}

const bridgedOf = new WeakMap(); // the object that programs see -> Bridged

function show(bridged) {
    const seen = new Proxy({}, {
        get(_, name) {
            if (name === 'isNil') { return () => bridged.kind === 'nil'; }
            const known = bridged.methods[name];
            if (known === undefined) { throw new Misuse(`${bridged.kind} has no ${String(name)}`); }
            return known();
        },
        set(_, name) { throw new Misuse(`${bridged.kind}.${String(name)} cannot be set`); },
    });
    bridgedOf.set(seen, bridged);
    return seen;
}

const nil = () => show(new Bridged('nil'));
const nsString = (text) => show(new Bridged('NSString', text));

// A method stores its NSError in element 0 of the object that Ref() returns.
class Reference {}

function kindOf(value) {
    if (value instanceof Reference) { return 'Ref'; }
    const bridged = bridgedOf.get(value);
    return bridged ? bridged.kind : typeof value;
}

// method(NAME, KINDS, ACTION): KINDS has a word for each argument, "string|nil" for one that may be either.
function method(name, kinds, action) {
    return () => (...values) => {
        if (values.length !== kinds.length) {
            throw new Misuse(`${name} takes ${kinds.length} arguments, not ${values.length}`);
        }
        values.forEach((value, index) => {
            if (!kinds[index].split('|').includes(kindOf(value))) {
                throw new Misuse(`argument ${index + 1} of ${name} is a ${kindOf(value)}, not ${kinds[index]}`);
            }
        });
        return action(...values);
    };
}

// Returns a text, or nil if the bytes are not valid in that encoding.
function decode(bytes, encoding) {
    if (encoding === UTF8) {
        try {
            return nsString(new TextDecoder('utf-8', {fatal: true, ignoreBOM: true}).decode(bytes));
        } catch (error) {
            return nil();
        }
    }
    if (encoding !== ASCII) { throw new Misuse(`the encoding ${encoding} is not known`); }
    return bytes.every((byte) => byte < 128) ? nsString(bytes.toString('latin1')) : nil();
}

// The names that a program may use after "$.", and the function $ itself, which makes nil.
class Mac {
    constructor(request) {
        this.request = request;
        this.input = Buffer.from(request.input, 'base64');
        this.imported = ['Foundation']; // imported by default
        this.passwords = [];
    }

    readInput() {
        const bytes = this.input;
        this.input = Buffer.alloc(0);
        return show(new Bridged('NSData', bytes));
    }

    openNode(name, error) {
        const isThere = this.request.refusal !== 'node';
        if (isThere && [LOCAL_NODE, SEARCH_NODE].includes(name)) { return this.node(name); }
        this.report(error, 'Connection to the directory server failed.');
        return nil();
    }

    node(name) {
        const kinds = ['string', 'string', 'nil', 'Ref'];
        const find = (type, user, _, error) => this.findRecord(name, type, user, error);
        return show(new Bridged('ODNode', name, {
            recordWithRecordTypeNameAttributesError: method('recordWithRecordType:name:attributes:error:', kinds, find),
        }));
    }

    findRecord(node, type, user, error) {
        if (type === USERS && this.request.users.includes(user)) { return this.record(node, user); }
        this.report(error, 'The record could not be found.');
        return nil();
    }

    record(node, user) {
        const kinds = ['nil', 'NSString|nil', 'Ref'];
        const change = (_, password, error) => this.changePassword(node, user, password, error);
        return show(new Bridged('ODRecord', user, {
            changePasswordToPasswordError: method('changePassword:toPassword:error:', kinds, change),
        }));
    }

    // The node that searches all directories can only find.  Nil counts as an empty password.
    changePassword(node, user, password, error) {
        const refusal = node === SEARCH_NODE ? 'error' : this.request.refusal;
        if (refusal === 'exception') { throw new Error('The operation could not be completed.'); }
        if (refusal === 'error') { this.report(error, 'Credentials could not be verified.'); }
        if (refusal) { return false; }
        const text = bridgedOf.get(password).value || '';
        this.passwords.push({user, password: Buffer.from(text).toString('base64')});
        return true;
    }

    report(error, text) {
        error[0] = show(new Bridged('NSError', text, {localizedDescription: () => nsString(text)}));
    }

    names() {
        const foundation = {
            NSUTF8StringEncoding: () => UTF8,
            NSASCIIStringEncoding: () => ASCII,
            NSFileHandle: () => this.fileHandleClass(),
            NSString: () => this.stringClass(),
        };
        const directory = {
            ODSession: () => show(new Bridged('ODSession class', null, {
                defaultSession: () => show(new Bridged('ODSession')),
            })),
            ODNode: () => show(new Bridged('ODNode class', null, {
                nodeWithSessionNameError: method('nodeWithSession:name:error:', ['ODSession', 'string', 'Ref'],
                    (_, name, error) => this.openNode(name, error)),
            })),
        };
        return this.imported.includes('OpenDirectory') ? {...foundation, ...directory} : foundation;
    }

    fileHandleClass() {
        const handle = new Bridged('NSFileHandle', null, {readDataToEndOfFile: () => this.readInput()});
        return show(new Bridged('NSFileHandle class', null, {fileHandleWithStandardInput: () => show(handle)}));
    }

    stringClass() {
        const allocated = new Bridged('NSString without content', null, {
            initWithDataEncoding: method('initWithData:encoding:', ['NSData', 'number'],
                (data, encoding) => decode(bridgedOf.get(data).value, encoding)),
        });
        return show(new Bridged('NSString class', null, {alloc: () => show(allocated)}));
    }

    dollar() {
        return new Proxy(nil, {
            get: (_, name) => {
                const named = this.names()[name];
                if (named === undefined) { throw new Misuse(`$ has no ${String(name)}`); }
                return named();
            },
            apply: (_, __, values) => {
                if (values.length) { throw new Misuse('$() is known without arguments only'); }
                return nil();
            },
        });
    }

    objC() {
        return {
            import: (name) => {
                if (!FRAMEWORKS.includes(name)) { throw new Misuse(`the framework ${name} is not known`); }
                this.imported.push(name);
            },
            unwrap: (value) => {
                if (kindOf(value) !== 'NSString') { throw new Misuse(`unwrap of a ${kindOf(value)}`); }
                return bridgedOf.get(value).value;
            },
        };
    }
}

// If the program has a function run, calls it with the arguments.
function perform(request) {
    const mac = new Mac(request), options = {filename: 'program', timeout: SECONDS * 1000};
    misuses = [];
    let status = 0, complaint = '';
    try {
        const context = vm.createContext({$: mac.dollar(), ObjC: mac.objC(), Ref: () => new Reference()});
        vm.runInContext(request.program, context, options);
        context.words = request.arguments;
        vm.runInContext('if (typeof run === "function") { run(words); }', context, options);
    } catch (error) {
        status = 1;
        complaint = `execution error: Error: ${error} (-2700)`;
    }
    return {status, complaint, misuses, passwords: mac.passwords};
}

readline.createInterface({input: process.stdin}).on('line', (line) => {
    process.stdout.write(JSON.stringify(perform(JSON.parse(line))) + '\n');
});
