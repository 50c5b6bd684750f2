// Evaluates polkit rules files as polkitd does, without polkitd: each file's
// code runs once and adds its rules with polkit.addRule; for an action and a
// subject the rules are asked in the order they were added, and the first
// answer other than undefined is the result ("no opinion" when none gives one).
//
// Usage: node polkit-rules.js RULES_FILE... -- SUBJECTS_JSON ACTION_ID...
// SUBJECTS_JSON is a list of {"user": name, "groups": [names]}. Prints one
// line per action and subject: "ACTION_ID USER RESULT", RESULT being polkit's
// result ("yes", "no", "auth_admin"...) or "none".
'use strict';
const fs = require('fs');
const vm = require('vm');

const separator = process.argv.indexOf('--');
if (separator < 0) {
    console.error('usage: polkit-rules.js RULES_FILE... -- SUBJECTS_JSON ACTION_ID...');
    process.exit(2);
}
const files = process.argv.slice(2, separator);
const subjects = JSON.parse(process.argv[separator + 1]);
const actionIds = process.argv.slice(separator + 2);

const rules = [];
const polkit = {
    Result: {
        NO: 'no',
        YES: 'yes',
        AUTH_SELF: 'auth_self',
        AUTH_SELF_KEEP: 'auth_self_keep',
        AUTH_ADMIN: 'auth_admin',
        AUTH_ADMIN_KEEP: 'auth_admin_keep',
        NOT_HANDLED: 'not_handled',
    },
    addRule(rule) { rules.push(rule); },
    addAdminRule() {},
    log() {},
    // A rule that runs a program fails the evaluation.
    spawn() { throw new Error('a rule runs a program'); },
};
const context = vm.createContext({polkit});
for (const file of files) {
    vm.runInContext(fs.readFileSync(file, 'utf8'), context, {filename: file});
}

for (const id of actionIds) {
    const action = {id, lookup() { return undefined; }};
    for (const given of subjects) {
        const subject = {
            user: given.user,
            groups: given.groups,
            pid: 4242,
            seat: '',
            session: '',
            local: false,
            active: false,
            isInGroup(group) { return given.groups.includes(group); },
            isInNetGroup() { return false; },
        };
        let result = 'none';
        for (const rule of rules) {
            const answer = rule(action, subject);
            if (answer !== undefined && answer !== null) {
                result = answer;
                break;
            }
        }
        console.log(`${id} ${given.user} ${result}`);
    }
}
