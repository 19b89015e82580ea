// The login page: says why the last login did not succeed.
'use strict';
document.addEventListener('DOMContentLoaded', () => {
  const q = new URLSearchParams(window.location.search);
  const msg = document.getElementById('login-error');
  if (q.has('locked')) msg.textContent = 'Too many failed logins from this address: locked out for a while.';
  else if (q.has('failed')) msg.textContent = 'Login failed: unknown user or wrong password.';
  document.getElementById('user').focus();
});
